// Paths, locale names and settings of the product; text escaped for XML as new memory.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "zebcs/encoding.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"
#include "zebcs/net.h"
#include "zebcs/product.h"

namespace {

std::string Taken(astring *text) {
  if (text == nullptr) return "(null)";
  const std::string copy(text);
  KCSFreeMem(text);
  return copy;
}

}  // namespace

TEST(GetXMLUTF8StrFromAStr, PassesEscapeWhatThePassBeforeMade) {
  const struct {
    const char *text;
    u32 passes;
    const char *expected;
  } cases[] = {
      {"a<b", 0, "a&lt;b"},
      {"a<b", 1, "a&lt;b"},
      {"a<b", 2, "a&amp;lt;b"},
      {"a<b", 3, "a&amp;amp;lt;b"},
      {"plain", 5, "plain"},
      {"", 3, ""},
      {"\"'&<>", 1, "&quot;&apos;&amp;&lt;&gt;"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Taken(KCSGetXMLUTF8StrFromAStr(c.text, c.passes)), c.expected) << c.text << ' ' << c.passes;
    EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr(c.text, c.passes)), c.expected);
  }
  EXPECT_EQ(KCSGetXMLUTF8StrFromAStr(nullptr, 1), nullptr);
}

TEST(GetXMLUTF8StrFromUStr, ConvertsFirst) {
  const ustring text[] = {'<', 0xE9, 0};
  EXPECT_EQ(Taken(KCSGetXMLUTF8StrFromUStr(text, 1)), "&lt;\xC3\xA9");
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(text, 2)), "&amp;lt;\xC3\xA9");
  const ustring half[] = {0xDC00, 0};
  EXPECT_EQ(KCSGetXMLUTF8StrFromUStr(half, 1), nullptr);
  EXPECT_EQ(KCSGetXMLUTF8StrFromUStr(nullptr, 1), nullptr);
}

// Against a plain second implementation.
namespace {

std::string PlainPass(const std::string &text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '"': escaped += "&quot;"; break;
      case '&': escaped += "&amp;"; break;
      case '\'': escaped += "&apos;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      default: escaped += c; break;
    }
  }
  return escaped;
}

std::string PlainPasses(std::string text, u32 passes) {
  for (u32 i = 0; i < std::max(passes, 1u); ++i) {
    const std::string escaped = PlainPass(text);
    if (escaped == text) break;
    text = escaped;
  }
  return text;
}

}  // namespace

TEST(GetXMLUTF8StrFromAStr, AgreesWithAPlainImplementation) {
  std::mt19937 random(1);
  for (size_t length = 0; length <= 120; ++length) {
    for (const unsigned spacing : {1u, 3u, 30u, 1000000u}) {
      std::string text(length, 'x');
      for (char &c : text) {
        c = random() % spacing == 0 ? "<>&\"'"[random() % 5] : static_cast<char>(1 + random() % 255);
      }
      const sandbox::GuardedBuffer memory(length + 1);
      std::memcpy(memory.data<char>(), text.c_str(), length + 1);
      for (u32 passes = 0; passes <= 4; ++passes) {
        ASSERT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr(memory.data<char>(), passes)), PlainPasses(text, passes))
            << length << ' ' << passes;
      }
      ASSERT_EQ(std::string(memory.data<char>()), text) << "the source stays";
    }
  }
}

TEST(GetXMLUTF8StrFromAStr, PassesEndWhenNothingNeedsEscaping) {
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr("plain", 0xFFFFFFFF)), "plain") << "the first pass is the last";
  std::string expected = "&";
  for (u32 passes = 1; passes <= 200; ++passes) {
    expected += "amp;";
    EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr("&", passes)), expected) << "an entity is escaped in each pass";
  }
}

TEST(GetXMLUTF8StrFromAStr, ResultIsAlwaysNewMemory) {
  const char text[] = "nothing to escape";
  astring *const result = SUPTIntfGetXMLUTF8StrFromAStr(text, 1);
  ASSERT_NE(result, nullptr);
  EXPECT_NE(result, text);
  EXPECT_STREQ(result, text);
  KCSFreeMem(result);
}

TEST(GetXMLUTF8StrFromAStr, BytesThatAreNoUTF8AreCopied) {
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr("\xFF<\x80\x01\xC3", 1)), "\xFF&lt;\x80\x01\xC3");
}

TEST(GetXMLUTF8StrFromUStr, AgreesWithAPlainImplementation) {
  std::mt19937 random(2);
  constexpr struct {
    ustring unit;
    const char *text;
  } kCharacters[] = {{'a', "a"},
                     {'<', "<"},
                     {'&', "&"},
                     {'"', "\""},
                     {0xE9, "\xC3\xA9"},
                     {'\'', "'"},
                     {'>', ">"},
                     {0x3042, "\xE3\x81\x82"},
                     {0xFFFF, "\xEF\xBF\xBF"}};
  for (size_t length = 0; length <= 120; ++length) {
    const sandbox::GuardedBuffer memory((length + 1) * sizeof(ustring));
    std::string narrow;
    for (size_t i = 0; i < length; ++i) {
      const auto &character = kCharacters[random() % std::size(kCharacters)];
      memory.data<ustring>()[i] = character.unit;
      narrow += character.text;
    }
    memory.data<ustring>()[length] = 0;
    for (u32 passes = 0; passes <= 3; ++passes) {
      ASSERT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(memory.data<ustring>(), passes)), PlainPasses(narrow, passes))
          << length << ' ' << passes;
    }
  }
}

TEST(GetXMLUTF8StrFromUStr, KeptSurrogatesStandForTheFirstCharacter) {
  const ustring late[] = {'<', 0xD83D, 0xDE00, 0};
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(late, 1)), "&lt;&lt;&lt;");
  const ustring first[] = {0xD83D, 0xDE00, 0};
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(first, 1)), "\xF0\x9F\x98\x80\xF0\x9F\x98\x80");
  const ustring half[] = {0xD83D, '<', 0};
  EXPECT_EQ(SUPTIntfGetXMLUTF8StrFromUStr(half, 1), nullptr);
  const ustring empty[] = {0};
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(empty, 1)), "");
}

// --- Paths ----------------------------------------------------------------------------------------------------------

namespace {

using sandbox::Channel;
using sandbox::Process;

using Getter = astring *(*)();

constexpr struct {
  Getter get;
  Getter getInner;
  const char *path;
} kPaths[] = {
    {KCSGetZEBInstallPath, SUPTIntfGetZEBInstallPath, "/opt/vorn/fleetops/"},
    {KCSGetRootInstallPath, SUPTIntfGetProductInstallPath, "/opt/vorn/fleetops"},
    {KCSGetProductIniPath, SUPTIntfGetProductIniPath, "/opt/vorn/fleetops/etc/kelvestane/"},
    {KCSGetProductVarPath, SUPTIntfGetProductVarPath, "/opt/vorn/fleetops/var/lib/kelvestane/"},
    {KCSGetZEBUploadPath, SUPTIntfGetZEBUploadPath, "/opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/upload"},
    {KCSGetZEBDownloadPath, SUPTIntfGetZEBDownloadPath, "/opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/download"},
    {KCSGetZEBWEBDocsPath, SUPTIntfGetZEBWEBDocsPath, "/opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/docs/en_US"},
    {KCSGetZEBCLIDocsPath, SUPTIntfGetZEBCLIDocsPath, "/opt/vorn/fleetops/var/lib/kelvestane/cliroot//zeb/docs/en_US"},
    {KCSGetZEBXSLRootPath, SUPTIntfGetZEBXSLRootPath, "/opt/vorn/fleetops/var/lib/kelvestane/xslroot/"},
    {KCSGetZEBWWWRootPath, SUPTIntfGetZEBWWWRootPath, "/opt/vorn/fleetops/var/lib/kelvestane/wwwroot/"},
};

void ExpectAllPaths() {
  for (const auto &row : kPaths) {
    EXPECT_EQ(Taken(row.get()), row.path);
    EXPECT_EQ(Taken(row.getInner()), row.path);
  }
}

}  // namespace

TEST(Paths, AreTheFixedOnes) { ExpectAllPaths(); }

TEST(Paths, AreNewTextsEachTime) {
  for (const auto &row : kPaths) {
    astring *const first = row.get();
    astring *const second = row.getInner();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(first, second) << row.path;
    std::memset(first, 'x', std::strlen(first));
    EXPECT_STREQ(second, row.path) << "a caller's change is the caller's own";
    KCSFreeMem(first);
    SUPTFreeMem(second);
  }
  ExpectAllPaths();
}

TEST(Paths, CallerMayGoOnWritingInTheBlock) {
  const struct {
    Getter get;
    size_t room;
  } cases[] = {{KCSGetZEBUploadPath, 256},  {KCSGetZEBDownloadPath, 256}, {KCSGetZEBWEBDocsPath, 256},
               {KCSGetZEBCLIDocsPath, 256}, {KCSGetZEBXSLRootPath, 256},  {KCSGetZEBWWWRootPath, 256},
               {KCSGetOSLanguage, 256},     {KCSGetOSCountry, 256},       {KCSGetZEBInstallPath, 20},
               {KCSGetProductIniPath, 35},  {KCSGetProductVarPath, 39},   {KCSGetOEMADSchemaPrefix, 256}};
  for (const auto &c : cases) {
    astring *const text = c.get();
    ASSERT_NE(text, nullptr);
    EXPECT_GE(malloc_usable_size(text), c.room) << text;
    std::memset(text + std::strlen(text), 'x', c.room - std::strlen(text));
    KCSFreeMem(text);
  }
  astring *const path = KCSGetOEMINIPathFile("folder", "file", "0");
  ASSERT_NE(path, nullptr);
  const size_t room = 67 + std::strlen("folder") + std::strlen("vorn") + std::strlen("file");
  EXPECT_GE(malloc_usable_size(path), room);
  std::memset(path, 'x', room);
  KCSFreeMem(path);
}

TEST(GetIWSTempDirPath, CallerMayGoOnWritingInTheBlock) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories("/opt/vorn/fleetops/var/lib/kelvestane/iws"));
  astring *const path = KCSGetIWSTempDirPath();
  ASSERT_NE(path, nullptr);
  EXPECT_GE(malloc_usable_size(path), 256u);
  std::memset(path, 'x', 256);
  KCSFreeMem(path);
}

TEST(Paths, NothingInTheEnvironmentChangesThem) {
  sandbox::RequireSandbox();
  const sandbox::TemporaryDirectory directory;
  for (const char *name : {"LANG", "LC_ALL", "LANGUAGE", "HOME", "TMPDIR", "ZEB_HOME", "ZEBINSTALLPATH"}) {
    setenv(name, "de_DE.UTF-8", 1);
  }
  ASSERT_EQ(chdir(directory.path().c_str()), 0);
  ExpectAllPaths();
  ASSERT_EQ(chdir("/"), 0);
  ASSERT_TRUE(sandbox::RemoveTree("/opt/vorn/fleetops"));
  ExpectAllPaths();  // nor need they exist
}

TEST(Paths, SeveralThreadsMayAskAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(SUPTIntfInitZEBInstallPath(), 0);
        ExpectAllPaths();
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

TEST(InitZEBInstallPath, SucceedsAgainAndAgain) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(SUPTIntfInitZEBInstallPath(), SM_STATUS_SUCCESS);
    EXPECT_EQ(Taken(KCSGetZEBInstallPath()), "/opt/vorn/fleetops/");
  }
}

namespace {

constexpr const char *kIWSDirectory = "/opt/vorn/fleetops/var/lib/kelvestane/iws";
constexpr const char *kIWSTempDirectory = "/opt/vorn/fleetops/var/lib/kelvestane/iws/temp";
constexpr Getter kIWSGetters[] = {KCSGetIWSTempDirPath, SUPTIntfGetIWSTempDirPath};

mode_t ModeOf(const std::string &path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

constexpr mode_t kPlainDirectory = S_IFDIR | 0755;

}  // namespace

TEST(GetIWSTempDirPath, MakesTheDirectoryWithItsMode) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories(kIWSDirectory));
  for (const mode_t mask : {077u, 0u, 0777u}) {
    for (const Getter get : kIWSGetters) {
      const mode_t former = umask(mask);
      EXPECT_EQ(Taken(get()), kIWSTempDirectory);
      umask(former);
      EXPECT_EQ(ModeOf(kIWSTempDirectory), kPlainDirectory);
      EXPECT_EQ(Taken(get()), kIWSTempDirectory) << "now it is there";
      ASSERT_TRUE(sandbox::RemoveTree(kIWSTempDirectory));
    }
  }
}

TEST(GetIWSTempDirPath, LeavesWhatIsThereAsItIs) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories(kIWSTempDirectory));
  ASSERT_TRUE(sandbox::WriteFile(std::string(kIWSTempDirectory) + "/file", "kept"));
  ASSERT_EQ(chmod(kIWSTempDirectory, 0700), 0);
  for (const Getter get : kIWSGetters) {
    EXPECT_EQ(Taken(get()), kIWSTempDirectory);
    EXPECT_EQ(ModeOf(kIWSTempDirectory), static_cast<mode_t>(S_IFDIR | 0700));
  }
  EXPECT_EQ(sandbox::ReadFile(std::string(kIWSTempDirectory) + "/file"), "kept");
  ASSERT_TRUE(sandbox::RemoveTree(kIWSTempDirectory));
  ASSERT_TRUE(sandbox::WriteFile(kIWSTempDirectory, "a file"));
  for (const Getter get : kIWSGetters) EXPECT_EQ(Taken(get()), kIWSTempDirectory) << "something accessible is there";
}

TEST(GetIWSTempDirPath, IsNullWhereItCannotBeMade) {
  sandbox::RequireSandbox();
  for (const Getter get : kIWSGetters) {
    EXPECT_EQ(get(), nullptr) << "the directory above it is missing";
    EXPECT_EQ(ModeOf(kIWSDirectory), 0u) << "and is not made";
  }
  ASSERT_TRUE(sandbox::WriteFile(kIWSDirectory, "a file"));
  for (const Getter get : kIWSGetters) EXPECT_EQ(get(), nullptr);
}

TEST(GetOEMINIPathFile, BrandIsTheProductsForExactlyZero) {
  constexpr struct {
    const char *branding;
    const char *brand;
  } kCases[] = {{"0", "vorn"},     {"00", "debrand"}, {"1", "debrand"},    {"", "debrand"},    {"0 ", "debrand"},
                {" 0", "debrand"}, {"-0", "debrand"}, {"vorn", "debrand"}, {"0x0", "debrand"}, {"00000000", "debrand"}};
  for (const auto &c : kCases) {
    const std::string expected =
        std::string("/opt/vorn/fleetops/etc/kelvestane/wwwroot/oem/data/ini/") + c.brand + "/file.ini";
    EXPECT_EQ(Taken(KCSGetOEMINIPathFile("data", "file.ini", c.branding)), expected) << c.branding;
    EXPECT_EQ(Taken(SUPTIntfGetOEMINIPathFile("data", "file.ini", c.branding)), expected) << c.branding;
  }
}

TEST(GetOEMINIPathFile, TextsAreTakenAsTheyAreAndNotCut) {
  const std::string base = "/opt/vorn/fleetops/etc/kelvestane/wwwroot/oem/";
  EXPECT_EQ(Taken(KCSGetOEMINIPathFile("", "", "0")), base + "/ini/vorn/");
  EXPECT_EQ(Taken(KCSGetOEMINIPathFile("%s%n", "../%d", "%s")), base + "%s%n/ini/debrand/../%d");
  for (const size_t length : {1u, 100u, 179u, 180u, 181u, 255u, 256u, 1000u, 20000u}) {
    const std::string folder(length, 'd');
    const std::string file(length + 1, 'f');
    EXPECT_EQ(Taken(KCSGetOEMINIPathFile(folder.c_str(), file.c_str(), "1")), base + folder + "/ini/debrand/" + file);
    EXPECT_EQ(Taken(KCSGetOEMINIPathFile(folder.c_str(), file.c_str(), "0")), base + folder + "/ini/vorn/" + file);
  }
}

TEST(GetOEMINIPathFile, IsNullWithoutAnArgument) {
  for (const auto get : {KCSGetOEMINIPathFile, SUPTIntfGetOEMINIPathFile}) {
    EXPECT_EQ(get(nullptr, "f", "0"), nullptr);
    EXPECT_EQ(get("d", nullptr, "0"), nullptr);
    EXPECT_EQ(get("d", "f", nullptr), nullptr);
  }
}

// --- Locale ---------------------------------------------------------------------------------------------------------

namespace {

const std::map<u32, std::string> kLocaleNames = {{1028, "zh_TW"}, {1031, "de"},    {1034, "es"},
                                                 {1036, "fr"},    {1041, "ja"},    {1046, "pt_BR"},
                                                 {2052, "zh"},    {2057, "en_GB"}, {2066, "ko"}};

std::string LocaleNameOf(u32 languageId) {
  const auto found = kLocaleNames.find(languageId);
  return found == kLocaleNames.end() ? "en_US" : found->second;
}

}  // namespace

TEST(GetLocaleName, OfEveryIdentifier) {
  for (u32 id = 0; id <= 0x11000; ++id) ASSERT_EQ(SUPTIntfGetLocaleName(id), LocaleNameOf(id)) << id;
  for (const auto &[id, name] : kLocaleNames) {
    EXPECT_EQ(SUPTIntfGetLocaleName(id), name);
    EXPECT_STREQ(SUPTIntfGetLocaleName(0x80000000 | id), "en_US") << "all bits count";
  }
  EXPECT_STREQ(SUPTIntfGetLocaleName(0xFFFFFFFF), "en_US");
  EXPECT_STREQ(SUPTIntfGetLocaleName(1033), "en_US");
  EXPECT_EQ(SUPTIntfGetLocaleName(1031), SUPTIntfGetLocaleName(1031)) << "a constant";
}

TEST(GetLocaleName, KeptKoreanHasAnotherIdentifierThanUsual) {
  EXPECT_STREQ(SUPTIntfGetLocaleName(2066), "ko");
  EXPECT_STREQ(SUPTIntfGetLocaleName(1042), "en_US");
}

TEST(GetLocaleNameAStr, IsANewText) {
  for (u32 id = 0; id <= 3000; ++id) {
    ASSERT_EQ(Taken(KCSGetLocaleNameAStr(id)), LocaleNameOf(id)) << id;
    ASSERT_EQ(Taken(SUPTIntfGetLocaleNameAStr(id)), LocaleNameOf(id)) << id;
  }
  EXPECT_EQ(Taken(KCSGetLocaleNameAStr(0xFFFFFFFF)), "en_US");
  astring *const name = SUPTIntfGetLocaleNameAStr(1031);
  ASSERT_NE(name, nullptr);
  EXPECT_NE(name, SUPTIntfGetLocaleName(1031));
  name[0] = 'x';
  KCSFreeMem(name);
  EXPECT_STREQ(SUPTIntfGetLocaleName(1031), "de");
}

TEST(GetOSLocaleName, KeptIsEnglishWhateverTheEnvironmentSays) {
  for (const char *language : {"de_DE.UTF-8", "ja_JP", "ko", "C", "", static_cast<const char *>(nullptr)}) {
    for (const char *variable : {"LANG", "LC_ALL", "LC_MESSAGES", "LANGUAGE"}) {
      if (language == nullptr) {
        unsetenv(variable);
      } else {
        setenv(variable, language, 1);
      }
    }
    EXPECT_EQ(Taken(KCSGetOSLocaleName()), "en_US");
    EXPECT_EQ(Taken(SUPTIntfGetOSLocaleName()), "en_US");
    EXPECT_EQ(Taken(KCSGetOSLanguage()), "en");
    EXPECT_EQ(Taken(SUPTIntfGetOSLanguage()), "en");
    EXPECT_EQ(Taken(KCSGetOSCountry()), "US");
    EXPECT_EQ(Taken(SUPTIntfGetOSCountry()), "US");
  }
}

#ifdef __x86_64__

namespace {

// A system of another language, which the library never finds: its function that tells the language is overwritten in
// this process with one that returns the identifier.
bool SetSystemLanguage(s32 languageId) {
  unsigned char code[] = {0xB8, 0, 0, 0, 0, 0xC3};  // mov eax, languageId; ret
  std::memcpy(code + 1, &languageId, sizeof languageId);
  void *const function = dlsym(RTLD_NEXT, "GetLocalLanguageID");
  if (function == nullptr) return false;
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(function);
  const std::uintptr_t start = address / page * page;
  if (mprotect(reinterpret_cast<void *>(start), address - start + sizeof code, PROT_READ | PROT_WRITE | PROT_EXEC) !=
      0) {
    return false;
  }
  std::memcpy(function, code, sizeof code);
  return GetLocalLanguageID() == languageId && KCSGetLocalLanguageID() == languageId;
}

}  // namespace

TEST(GetOSLanguage, LanguageAndCountryAreThePartsOfTheName) {
  const struct {
    s32 languageId;
    const char *name;
    const char *language;
    const char *country;
  } cases[] = {
      {1028, "zh_TW", "zh", "TW"},      {1031, "de", "(null)", "(null)"}, {1034, "es", "(null)", "(null)"},
      {1036, "fr", "(null)", "(null)"}, {1041, "ja", "(null)", "(null)"}, {1046, "pt_BR", "pt", "BR"},
      {2052, "zh", "(null)", "(null)"}, {2057, "en_GB", "en", "GB"},      {2066, "ko", "(null)", "(null)"},
      {1042, "en_US", "en", "US"},      {0, "en_US", "en", "US"},         {-1, "en_US", "en", "US"},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(SetSystemLanguage(c.languageId));
    EXPECT_EQ(Taken(KCSGetOSLocaleName()), c.name);
    EXPECT_EQ(Taken(SUPTIntfGetOSLocaleName()), c.name);
    EXPECT_EQ(Taken(KCSGetOSLanguage()), c.language) << c.name;
    EXPECT_EQ(Taken(SUPTIntfGetOSLanguage()), c.language) << c.name;
    EXPECT_EQ(Taken(KCSGetOSCountry()), c.country) << c.name;
    EXPECT_EQ(Taken(SUPTIntfGetOSCountry()), c.country) << c.name;
    const std::string base = "/opt/vorn/fleetops/var/lib/kelvestane/";
    EXPECT_EQ(Taken(KCSGetZEBWEBDocsPath()), base + "wwwroot//zeb/docs/" + c.name);
    EXPECT_EQ(Taken(SUPTIntfGetZEBWEBDocsPath()), base + "wwwroot//zeb/docs/" + c.name);
    EXPECT_EQ(Taken(KCSGetZEBCLIDocsPath()), base + "cliroot//zeb/docs/" + c.name);
    EXPECT_EQ(Taken(SUPTIntfGetZEBCLIDocsPath()), base + "cliroot//zeb/docs/" + c.name);
  }
}

#endif

// --- Product INI files ----------------------------------------------------------------------------------------------

namespace {

std::string IniPath(const std::string &name) { return std::string(sandbox::kIniDirectory) + '/' + name; }

constexpr auto kINIReaders = {KCSReadINIFileValue, SUPTIntfReadINIFileValue};
constexpr auto kINIWriters = {KCSWriteINIFileValue, SUPTIntfWriteINIFileValue};

// The value of "key" in section "s", or the status of a failure.
std::string ReadProductText(const std::string &fileName) {
  astring value[8193];
  u32 size = sizeof value;
  const s32 status = KCSReadINIFileValue("s", "key", ZEBCS_INI_ASTRING, value, &size, nullptr, 0, fileName.c_str(), 1);
  return status == 0 ? value : "status " + std::to_string(status);
}

s32 HoldFileLock(Channel &channel) {
  channel.Put(FileLock(0) == 1 ? "held" : "failed");
  if (channel.Get() != "release") return 1;
  FileUnlock();
  return 0;
}

}  // namespace

TEST(ProductINIFile, LiesInTheProductsDirectory) {
  sandbox::RequireSandbox();
  for (const auto write : kINIWriters) {
    EXPECT_EQ(write("s", "key", ZEBCS_INI_ASTRING, "value", 6, "a.ini", 1), 0);
    EXPECT_EQ(sandbox::ReadFile(IniPath("a.ini")), "[s]\nkey=value\n");
    EXPECT_EQ(sandbox::ReadFile("/opt/vorn/fleetops/etc/kelvestane//zeb/ini/a.ini"), "[s]\nkey=value\n");
    EXPECT_EQ(ModeOf(IniPath("a.ini")), static_cast<mode_t>(S_IFREG | 01664));
    for (const auto read : kINIReaders) {
      const sandbox::GuardedBuffer value(6);
      u32 size = 6;
      EXPECT_EQ(read("s", "key", ZEBCS_INI_ASTRING, value.data<void>(), &size, nullptr, 0, "a.ini", 1), 0);
      EXPECT_EQ(size, 6u);
      EXPECT_STREQ(value.data<char>(), "value");
    }
    EXPECT_EQ(write("s", "key", ZEBCS_INI_ASTRING, nullptr, 0, "a.ini", 1), 0);
    EXPECT_EQ(sandbox::ReadFile(IniPath("a.ini")), "[s]\n");
    ASSERT_TRUE(sandbox::RemoveTree(IniPath("a.ini")));
  }
}

TEST(ProductINIFile, EveryArgumentArrivesUnchanged) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(IniPath("a.ini"), "[s]\nkey=77\n"));
  for (const auto read : kINIReaders) {
    u32 number = 0;
    u32 size = 4;
    EXPECT_EQ(read("s", "key", ZEBCS_INI_U32, &number, &size, nullptr, 0, "a.ini", 1), 0);
    EXPECT_EQ(number, 77u);
    const u32 preset = 5;
    EXPECT_EQ(read("s", "none", ZEBCS_INI_U32, &number, &size, &preset, 4, "a.ini", 1), SM_STATUS_KEY_NOT_FOUND);
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(read("s", "none", ZEBCS_INI_U32, &number, &size, &preset, 3, "a.ini", 1), SM_STATUS_KEY_NOT_FOUND);
    EXPECT_EQ(size, 0u) << "a default that is too small is none";
    size = 4;
    EXPECT_EQ(read("s", "key", ZEBCS_INI_U32, &number, &size, &preset, 4, "missing.ini", 1), SM_STATUS_NOT_FOUND);
    EXPECT_EQ(read("s", "key", 0, &number, &size, nullptr, 0, "a.ini", 1), SM_STATUS_BAD_PARAMETER);
    EXPECT_EQ(read("s", "key", 10, &number, &size, nullptr, 0, "a.ini", 1), SM_STATUS_BAD_PARAMETER);
    astring list[16];
    size = sizeof list;
    EXPECT_EQ(read(nullptr, nullptr, ZEBCS_INI_ASTRING, list, &size, nullptr, 0, "a.ini", 1), 0);
    EXPECT_EQ(std::string(list, 3), std::string("s\0\0", 3));
    size = sizeof list;
    EXPECT_EQ(read("s", nullptr, ZEBCS_INI_ASTRING, list, &size, nullptr, 0, "a.ini", 1), 0);
    EXPECT_EQ(std::string(list, 5), std::string("key\0\0", 5));
  }
  for (const auto write : kINIWriters) {
    const s64 number = -5;
    EXPECT_EQ(write("s", "key", ZEBCS_INI_S64, &number, 8, "a.ini", 1), 0);
    EXPECT_EQ(sandbox::ReadFile(IniPath("a.ini")), "[s]\nkey=-5\n");
    EXPECT_EQ(write("s", "key", ZEBCS_INI_S64, &number, 7, "a.ini", 1), SM_STATUS_BAD_SIZE);
    EXPECT_EQ(write("s", "key", 10, &number, 8, "a.ini", 1), SM_STATUS_BAD_PARAMETER);
    EXPECT_EQ(write(nullptr, "key", ZEBCS_INI_S64, &number, 8, "a.ini", 1), SM_STATUS_BAD_PARAMETER);
    EXPECT_EQ(write("s", "key", ZEBCS_INI_ASTRING, "77", 3, "a.ini", 1), 0);
  }
}

TEST(ProductINIFile, SingleAttemptFailsWhileTheLockIsHeld) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(IniPath("a.ini"), "[s]\nkey=77\n"));
  Process holder;
  ASSERT_TRUE(holder.Start(HoldFileLock));
  ASSERT_EQ(holder.Receive(), "held");
  astring value[8] = "before";
  u32 size = sizeof value;
  for (const auto read : kINIReaders) {
    EXPECT_EQ(read("s", "key", ZEBCS_INI_ASTRING, value, &size, nullptr, 0, "a.ini", 0), SM_STATUS_LOCK_TIMEOUT);
  }
  for (const auto write : kINIWriters) {
    EXPECT_EQ(write("s", "key", ZEBCS_INI_ASTRING, "1", 2, "a.ini", 0), SM_STATUS_LOCK_TIMEOUT);
  }
  EXPECT_STREQ(value, "before");
  EXPECT_EQ(size, sizeof value);
  EXPECT_EQ(sandbox::ReadFile(IniPath("a.ini")), "[s]\nkey=77\n");
  holder.Send("release");
  EXPECT_EQ(holder.Wait(), 0);
}

TEST(ProductINIFile, LongPathIsCutAt255Characters) {
  sandbox::RequireSandbox();
  const std::string folder = "/opt/vorn/fleetops/etc/kelvestane//zeb/ini/";
  const size_t longest = 255 - folder.size();
  for (const auto write : kINIWriters) {
    for (const size_t length : {longest - 1, longest, longest + 1, longest + 100, size_t{5000}}) {
      const std::string name(length, 'n');
      const std::string kept = name.substr(0, longest);
      const std::string value = std::to_string(length);
      EXPECT_EQ(
          write("s", "key", ZEBCS_INI_ASTRING, value.c_str(), static_cast<u32>(value.size() + 1), name.c_str(), 1), 0)
          << length;
      EXPECT_EQ(sandbox::ReadFile(folder + kept), "[s]\nkey=" + value + '\n') << length;
      EXPECT_EQ(ReadProductText(name), value) << length;
      EXPECT_EQ(ReadProductText(kept), value) << length;
      EXPECT_EQ(ReadProductText(kept + "another end"), length < longest ? "status 7" : value) << length;
    }
    ASSERT_TRUE(sandbox::RemoveTree(folder + std::string(longest, 'n')));
    ASSERT_TRUE(sandbox::RemoveTree(folder + std::string(longest - 1, 'n')));
  }
}

TEST(ProductINIFile, NameIsRequired) {
  sandbox::RequireSandbox();
  astring value[8] = "before";
  u32 size = sizeof value;
  for (const auto read : kINIReaders) {
    EXPECT_EQ(read("s", "key", ZEBCS_INI_ASTRING, value, &size, nullptr, 0, nullptr, 1), SM_STATUS_BAD_PARAMETER);
  }
  for (const auto write : kINIWriters) {
    EXPECT_EQ(write("s", "key", ZEBCS_INI_ASTRING, "1", 2, nullptr, 1), SM_STATUS_BAD_PARAMETER);
  }
  EXPECT_STREQ(value, "before");
  EXPECT_EQ(size, sizeof value);
}

TEST(ProductINIFile, DirectoryIsMadeOneLevelDeep) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kIniDirectory));
  EXPECT_EQ(KCSWriteINIFileValue("s", "key", ZEBCS_INI_ASTRING, "1", 2, "a.ini", 1), 0);
  EXPECT_EQ(sandbox::ReadFile(IniPath("a.ini")), "[s]\nkey=1\n");
  ASSERT_TRUE(sandbox::RemoveTree("/opt/vorn/fleetops/etc/kelvestane/zeb"));
  EXPECT_EQ(KCSWriteINIFileValue("s", "key", ZEBCS_INI_ASTRING, "1", 2, "a.ini", 1), -1);
  EXPECT_EQ(ReadProductText("a.ini"), "status 7");
}

// --- Product settings -----------------------------------------------------------------------------------------------

namespace {

std::string SchemaPrefixWith(const std::string &fileText) {
  EXPECT_TRUE(sandbox::WriteFile(IniPath("oem.ini"), fileText));
  return Taken(KCSGetOEMADSchemaPrefix());
}

booln ModularChassisWith(const std::string &fileText) {
  EXPECT_TRUE(sandbox::WriteFile(IniPath("qxcli32.ini"), fileText));
  return KCSCheckModularChassis();
}

// Runs the call in another process while a third one holds the lock, and releases that.
void ExpectWaitsForTheLock(const std::function<bool()> &call) {
  Process holder;
  ASSERT_TRUE(holder.Start(HoldFileLock));
  ASSERT_EQ(holder.Receive(), "held");
  Process caller;
  ASSERT_TRUE(caller.Start([&call](Channel &channel) {
    channel.Put("calling");
    return call() ? 0 : 1;
  }));
  ASSERT_EQ(caller.Receive(), "calling");
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // a single attempt would often have failed by now
  holder.Send("release");
  EXPECT_EQ(holder.Wait(), 0);
  EXPECT_EQ(caller.Wait(), 0);
}

}  // namespace

TEST(GetOEMADSchemaPrefix, IsTheProductsUnlessTheFileSaysOtherwise) {
  sandbox::RequireSandbox();
  EXPECT_EQ(Taken(KCSGetOEMADSchemaPrefix()), "vorn") << "without a file";
  const std::string long255(255, 'p');
  const struct {
    std::string file;
    std::string prefix;
  } cases[] = {
      {"[data]\nadschemaprefix=acme\n", "acme"},
      {"[data]\nadschemaprefix=acme", "acme"},
      {"[data]\nadschemaprefix= acme \n", " acme "},
      {"[data]\nadschemaprefix=acme\r\n", "acme\r"},
      {"[data]\nadschemaprefix=\n", ""},
      {"[data]\nadschemaprefix=one\nadschemaprefix=two\n", "one"},
      {"[other]\nadschemaprefix=one\n[data]\nadschemaprefix=two\n", "two"},
      {"", "vorn"},
      {"[data]\n", "vorn"},
      {"[data]\nadschemaprefix\n", "vorn"},
      {"[data]\nADSchemaPrefix=acme\n", "vorn"},
      {"[Data]\nadschemaprefix=acme\n", "vorn"},
      {"[other]\nadschemaprefix=acme\n", "vorn"},
      {"[data]\n;adschemaprefix=acme\n", "vorn"},
      {"[broken\n[data]\nadschemaprefix=acme\n", "vorn"},
      {"[data]\nadschemaprefix=" + long255 + "\n", long255},
      {"[data]\nadschemaprefix=" + long255 + "p\n", "vorn"},
      {"[data]\nadschemaprefix=" + std::string(9000, 'p') + "\n", "vorn"},
  };
  for (const auto &c : cases) EXPECT_EQ(SchemaPrefixWith(c.file), c.prefix) << c.file;
}

TEST(GetOEMADSchemaPrefix, IsABlockOf256Bytes) {
  sandbox::RequireSandbox();
  for (const char *file : {"[data]\nadschemaprefix=acme\n", "[data]\n"}) {
    ASSERT_TRUE(sandbox::WriteFile(IniPath("oem.ini"), file));
    astring *const prefix = KCSGetOEMADSchemaPrefix();
    ASSERT_NE(prefix, nullptr);
    std::memset(prefix, 'x', 256);  // the caller may use all of it
    KCSFreeMem(prefix);
  }
}

TEST(GetOEMADSchemaPrefix, WaitsForTheLock) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(IniPath("oem.ini"), "[data]\nadschemaprefix=acme\n"));
  ExpectWaitsForTheLock([] { return Taken(KCSGetOEMADSchemaPrefix()) == "acme"; });
}

TEST(CheckModularChassis, IsTrueForExactlyThatWord) {
  sandbox::RequireSandbox();
  EXPECT_EQ(KCSCheckModularChassis(), 0) << "without a file";
  const struct {
    std::string file;
    booln expected;
  } cases[] = {
      {"[blade]\nblade=true\n", 1},
      {"[blade]\nblade=true", 1},
      {"[first]\nblade=false\n[blade]\nother=1\n  blade=true\n", 1},
      {"[blade]\nblade=true\nblade=false\n", 1},
      {"[blade]\nblade=false\nblade=true\n", 0},
      {"[blade]\nblade=True\n", 0},
      {"[blade]\nblade=TRUE\n", 0},
      {"[blade]\nblade=true \n", 0},
      {"[blade]\nblade= true\n", 0},
      {"[blade]\nblade=true\r\n", 0},
      {"[blade]\nblade=truer\n", 0},
      {"[blade]\nblade=tru\n", 0},
      {"[blade]\nblade=1\n", 0},
      {"[blade]\nblade=\n", 0},
      {"[blade]\nblade =true\n", 0},
      {"[blade]\nBlade=true\n", 0},
      {"[blade]\nblade\n", 0},
      {"[blade]\n", 0},
      {"[Blade]\nblade=true\n", 0},
      {"[other]\nblade=true\n", 0},
      {"[broken\n[blade]\nblade=true\n", 0},
      {"", 0},
      {"[blade]\nblade=true" + std::string(8188, ' ') + "\n", 0},  // the longest text
      {"[blade]\nblade=true" + std::string(9000, ' ') + "\n", 0},
  };
  for (const auto &c : cases) EXPECT_EQ(ModularChassisWith(c.file), c.expected) << c.file;
}

TEST(CheckModularChassis, WaitsForTheLock) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(IniPath("qxcli32.ini"), "[blade]\nblade=true\n"));
  ExpectWaitsForTheLock([] { return KCSCheckModularChassis() == 1; });
}

// --- Host name ------------------------------------------------------------------------------------------------------

TEST(GetHostNameAStr, IsTheNameOfTheMachine) {
  sandbox::RequireSandbox();
  EXPECT_EQ(Taken(KCSGetHostNameAStr()), "sandbox");
  ASSERT_TRUE(sandbox::SetHostName("other"));
  EXPECT_EQ(Taken(SUPTIntfGetHostNameAStr()), "other") << "asked for each time";
}
