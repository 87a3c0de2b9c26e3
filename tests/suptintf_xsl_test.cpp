// Stylesheets found by application, type, name and locale.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "zebcs/frame.h"
#include "zebcs/product.h"

namespace {

using std::string;

constexpr decltype(&KCSGetXSLPathLocale) kGetters[] = {KCSGetXSLPathLocale, SUPTIntfGetXSLPathLocale};

constexpr const char *kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
constexpr const char *kStartTag =
    "<xsl:stylesheet version=\"1.0\" xmlns:xsl=\"http://www.w3.org/1999/XSL/Transform\""
    " xmlns:fo=\"http://www.w3.org/1999/XSL/Format\">";
constexpr const char *kEndTag = "</xsl:stylesheet>";
constexpr booln kNoAndYes[] = {0, 1, 2, -1};
constexpr booln kYes[] = {1, 2, -1};
constexpr size_t kLongestPath = 255;
constexpr size_t kLongestWrapper = 512;

string Taken(astring *text) {
  if (text == nullptr) return "(null)";
  const string copy(text);
  KCSFreeMem(text);
  return copy;
}

string AppPath(const string &app) { return "/opt/vorn/fleetops/var/lib/kelvestane/xslroot//" + app; }

// A path in the folder of the application "app".
string In(const string &path) { return AppPath("app") + "/" + path; }

void MakeFile(const string &path) {
  ASSERT_TRUE(sandbox::MakeDirectories(path.substr(0, path.rfind('/'))));
  ASSERT_TRUE(sandbox::WriteFile(path, "x"));
}

void MakeFiles(const std::vector<string> &paths) {
  for (const string &path : paths) ASSERT_NO_FATAL_FAILURE(MakeFile(In(path)));
}

void RemoveFiles() { ASSERT_TRUE(sandbox::RemoveTree(AppPath("app"))); }

string URI(const string &path) {
  string uri;
  for (const char c : path) uri += c == ' ' ? "%20" : string(1, c == '\\' ? '/' : c);
  return uri;
}

string Include(const string &path) { return "<xsl:include href=\"" + URI(path) + "\" />"; }

// What is around the includes of a wrapper.
string Around(u32 mask, const string &includes) {
  return ((mask & 2) != 0 ? kDeclaration : "") + string((mask & 4) != 0 ? kStartTag : "") + includes +
         ((mask & 8) != 0 ? kEndTag : "");
}

// Of the stylesheet "n.xsl" of type "html", under both names.
string Get(const char *locale, u32 mask = 0, const char *name = "n.xsl") {
  const string text = Taken(SUPTIntfGetXSLPathLocale("app", "html", name, locale, mask, 0));
  EXPECT_EQ(Taken(KCSGetXSLPathLocale("app", "html", name, locale, mask, 0)), text);
  return text;
}

}  // namespace

// --- Without a template ---------------------------------------------------------------------------------------------

TEST(GetXSLPathLocale, WithoutATemplateIsTheFirstThatExists) {
  sandbox::RequireSandbox();
  const struct {
    const char *locale;
    std::vector<string> files;
    const char *expected;
  } cases[] = {
      {"pt_BR", {"pt/BR/html/n.xsl", "pt/html/n.xsl", "html/n.xsl"}, "pt/BR/html/n.xsl"},
      {"pt_BR", {"pt/html/n.xsl", "html/n.xsl"}, "pt/html/n.xsl"},
      {"pt_BR", {"pt/BR/html/n.xsl"}, "pt/BR/html/n.xsl"},
      {"pt_BR", {"html/n.xsl"}, "html/n.xsl"},
      {"pt_BR", {}, "html/n.xsl"},  // which does not exist
      {"pt_BR", {"pt_BR/html/n.xsl"}, "html/n.xsl"},
      {"pt_BR", {"BR/html/n.xsl", "pt/PT/html/n.xsl"}, "html/n.xsl"},
      {"pt_BR", {"pt/BR/html/other.xsl", "pt/BR/text/n.xsl", "pt/n.xsl"}, "html/n.xsl"},
      {"pt_BR", {"template/pt/BR/html/n.xsl", "template/pt/html/n.xsl"}, "html/n.xsl"},
      {"de", {"de/html/n.xsl", "html/n.xsl"}, "de/html/n.xsl"},
      {"de", {"de/DE/html/n.xsl"}, "html/n.xsl"},
      {"abcde", {"abcde/html/n.xsl"}, "abcde/html/n.xsl"},
      {"_US", {"US/html/n.xsl"}, "/US/html/n.xsl"},
      {"_US", {"html/n.xsl"}, "html/n.xsl"},
      {"en_", {"en/html/n.xsl"}, "en//html/n.xsl"},
      {"_", {"html/n.xsl"}, "//html/n.xsl"},
      {"a_b_c", {"a/b_c/html/n.xsl", "a/html/n.xsl"}, "a/b_c/html/n.xsl"},
      {"a_b_c", {"a/html/n.xsl", "a_b/html/n.xsl", "a/b/html/n.xsl"}, "a/html/n.xsl"},
      {"PT_br", {"pt/BR/html/n.xsl", "pt/html/n.xsl"}, "html/n.xsl"},
      {nullptr, {"en/US/html/n.xsl", "en/html/n.xsl"}, "en/US/html/n.xsl"},
      {nullptr, {"en/html/n.xsl", "html/n.xsl"}, "en/html/n.xsl"},
      {"", {"en/US/html/n.xsl", "en/html/n.xsl"}, "en/US/html/n.xsl"},
      {"", {"html/n.xsl"}, "html/n.xsl"},
  };
  for (const auto &c : cases) {
    ASSERT_NO_FATAL_FAILURE(RemoveFiles());
    ASSERT_NO_FATAL_FAILURE(MakeFiles(c.files));
    for (const u32 mask : {0u, 14u}) {
      EXPECT_EQ(Get(c.locale, mask), In(c.expected)) << (c.locale != nullptr ? c.locale : "NULL");
    }
  }
}

TEST(GetXSLPathLocale, NothingNeedExist) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::RemoveTree("/opt/vorn/fleetops"));
  EXPECT_EQ(Get("pt_BR"), In("html/n.xsl"));
}

TEST(GetXSLPathLocale, KeptPathWithoutATemplateIsNotLookedForInEnglish) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFiles({"en/US/html/n.xsl", "en/html/n.xsl"}));
  EXPECT_EQ(Get("pt_BR"), In("html/n.xsl"));
  EXPECT_EQ(Get("de"), In("html/n.xsl"));
  EXPECT_EQ(Get("en_GB"), In("en/html/n.xsl"));
}

TEST(GetXSLPathLocale, EnvironmentDoesNotChooseTheLocale) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFiles({"en/US/html/n.xsl", "de/DE/html/n.xsl", "de/html/n.xsl"}));
  for (const char *name : {"LANG", "LC_ALL", "LANGUAGE"}) setenv(name, "de_DE.UTF-8", 1);
  EXPECT_EQ(Get(nullptr), In("en/US/html/n.xsl"));
}

// --- With a template ------------------------------------------------------------------------------------------------

TEST(GetXSLPathLocale, TemplateIsIncludedWithWhatTheLocaleHas) {
  sandbox::RequireSandbox();
  const struct {
    const char *locale;
    std::vector<string> files;     // in "template", beside the template itself
    std::vector<string> expected;  // what is included, in "template", behind the template itself
  } cases[] = {
      {"pt_BR", {}, {}},
      {"pt_BR",
       {"pt/BR/html/n.xsl", "pt/html/n.xsl", "en/US/html/n.xsl", "en/html/n.xsl", "pt/BR/html/globals.xsl",
        "pt/html/globals.xsl", "en/US/html/globals.xsl", "en/html/globals.xsl"},
       {"pt/BR/html/n.xsl", "pt/BR/html/globals.xsl"}},
      {"pt_BR", {"pt/html/n.xsl"}, {"pt/html/n.xsl"}},
      {"pt_BR", {"en/US/html/n.xsl"}, {"en/US/html/n.xsl"}},
      {"pt_BR", {"en/html/n.xsl"}, {"en/html/n.xsl"}},
      {"pt_BR", {"en/US/html/n.xsl", "en/html/n.xsl"}, {"en/US/html/n.xsl"}},
      {"pt_BR", {"pt/html/n.xsl", "en/US/html/n.xsl"}, {"pt/html/n.xsl"}},
      {"pt_BR", {"pt/html/n.xsl", "pt/BR/html/globals.xsl"}, {"pt/html/n.xsl", "pt/BR/html/globals.xsl"}},
      {"pt_BR", {"pt/BR/html/n.xsl", "pt/html/globals.xsl"}, {"pt/BR/html/n.xsl", "pt/html/globals.xsl"}},
      {"pt_BR", {"pt/html/n.xsl", "en/US/html/globals.xsl"}, {"pt/html/n.xsl", "en/US/html/globals.xsl"}},
      {"pt_BR", {"pt/html/n.xsl", "en/html/globals.xsl"}, {"pt/html/n.xsl", "en/html/globals.xsl"}},
      {"pt_BR", {"en/html/n.xsl", "en/US/html/globals.xsl"}, {"en/html/n.xsl", "en/US/html/globals.xsl"}},
      {"pt_BR", {"en/US/html/globals.xsl"}, {"en/US/html/globals.xsl"}},
      {"pt_BR", {"en/html/globals.xsl"}, {"en/html/globals.xsl"}},
      {"pt_BR", {"pt/text/n.xsl", "pt/BR/n.xsl", "pt_BR/html/n.xsl", "html/globals.xsl"}, {}},
      {"de", {"de/html/n.xsl", "de/html/globals.xsl"}, {"de/html/n.xsl", "de/html/globals.xsl"}},
      {"de", {"en/html/n.xsl"}, {"en/html/n.xsl"}},
      {"_US", {"US/html/n.xsl"}, {"/US/html/n.xsl"}},
      {"en_GB",
       {"en/html/n.xsl", "en/US/html/n.xsl", "en/US/html/globals.xsl"},
       {"en/html/n.xsl", "en/US/html/globals.xsl"}},
      {nullptr, {"en/US/html/n.xsl", "en/html/globals.xsl"}, {"en/US/html/n.xsl", "en/html/globals.xsl"}},
      {"", {"en/US/html/n.xsl", "en/html/globals.xsl"}, {"en/US/html/n.xsl", "en/html/globals.xsl"}},
  };
  for (const auto &c : cases) {
    ASSERT_NO_FATAL_FAILURE(RemoveFiles());
    ASSERT_NO_FATAL_FAILURE(MakeFile(In("template/html/n.xsl")));
    // None of these is the template's business.
    ASSERT_NO_FATAL_FAILURE(MakeFiles({"pt/BR/html/n.xsl", "pt/BR/html/globals.xsl", "en/US/html/n.xsl",
                                       "en/US/html/globals.xsl", "html/n.xsl", "html/globals.xsl"}));
    string includes = Include(In("template/html/n.xsl"));
    for (const string &path : c.files) ASSERT_NO_FATAL_FAILURE(MakeFile(In("template/" + path)));
    for (const string &path : c.expected) includes += Include(In("template/" + path));
    EXPECT_EQ(Get(c.locale), includes) << (c.locale != nullptr ? c.locale : "NULL");
    EXPECT_EQ(Get(c.locale, 8), includes + kEndTag);
  }
}

TEST(GetXSLPathLocale, KeptGlobalsFollowTheStylesheetToEnglish) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFiles({"template/html/n.xsl", "template/pt/BR/html/globals.xsl",
                                     "template/pt/html/globals.xsl", "template/en/html/n.xsl"}));
  const string start = Include(In("template/html/n.xsl"));
  const string english = Include(In("template/en/html/n.xsl"));
  EXPECT_EQ(Get("pt_BR"), start + english) << "there are globals in the language, but the stylesheet was not";
  ASSERT_NO_FATAL_FAILURE(MakeFile(In("template/en/html/globals.xsl")));
  const string englishGlobals = Include(In("template/en/html/globals.xsl"));
  EXPECT_EQ(Get("pt_BR"), start + english + englishGlobals);
  ASSERT_EQ(unlink(In("template/en/html/n.xsl").c_str()), 0);
  EXPECT_EQ(Get("pt_BR"), start + englishGlobals) << "nor where the stylesheet is missing in English as well";
  ASSERT_EQ(unlink(In("template/en/html/globals.xsl").c_str()), 0);
  EXPECT_EQ(Get("pt_BR"), start);
  ASSERT_NO_FATAL_FAILURE(MakeFile(In("template/pt/html/n.xsl")));
  EXPECT_EQ(Get("pt_BR"),
            start + Include(In("template/pt/html/n.xsl")) + Include(In("template/pt/BR/html/globals.xsl")));
}

TEST(GetXSLPathLocale, GlobalsAreAStylesheetToo) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFiles({"template/html/globals.xsl", "template/de/html/globals.xsl"}));
  EXPECT_EQ(Get("de", 0, "globals.xsl"), Include(In("template/html/globals.xsl")) +
                                             Include(In("template/de/html/globals.xsl")) +
                                             Include(In("template/de/html/globals.xsl")));
}

TEST(GetXSLPathLocale, MaskChoosesWhatIsAroundTheIncludes) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFiles({"template/html/n.xsl", "template/de/html/n.xsl"}));
  const string includes = Include(In("template/html/n.xsl")) + Include(In("template/de/html/n.xsl"));
  EXPECT_EQ(Get("de", 0), includes);
  EXPECT_EQ(Get("de", 14), kDeclaration + string(kStartTag) + includes + kEndTag);
  EXPECT_EQ(Get("de", 2), kDeclaration + includes);
  EXPECT_EQ(Get("de", 4), kStartTag + includes);
  EXPECT_EQ(Get("de", 8), includes + kEndTag);
  for (u32 mask = 0; mask < 64; ++mask) EXPECT_EQ(Get("de", mask), Around(mask, includes)) << mask;
  for (const u32 others : {0x10u, 0x80u, 0x100u, 0x8000u, 0x80000000u, 0xFFFFFFF1u}) {
    for (const u32 mask : {0u, 2u, 4u, 8u, 14u}) EXPECT_EQ(Get("de", mask | others), Around(mask, includes)) << others;
  }
}

// A slow second implementation beside every combination of files.
namespace {

constexpr std::array kCandidates = {
    "template/html/n.xsl",
    "template/pt/BR/html/n.xsl",
    "template/pt/html/n.xsl",
    "template/en/US/html/n.xsl",
    "template/en/html/n.xsl",
    "template/pt/BR/html/globals.xsl",
    "template/pt/html/globals.xsl",
    "template/en/US/html/globals.xsl",
    "template/en/html/globals.xsl",
    "pt/BR/html/n.xsl",
    "pt/html/n.xsl",
};

using Files = std::set<string>;

// The folders of the files in the locale pt_BR, or en_US, that are looked at one after another.
std::optional<string> PlainFind(const Files &files, const string &before, bool isPortuguese, const string &name) {
  for (const char *folders : {isPortuguese ? "pt/BR" : "en/US", isPortuguese ? "pt" : "en"}) {
    const string path = before + folders + "/html/" + name;
    if (files.contains(path)) return path;
  }
  return std::nullopt;
}

string PlainGet(const Files &files) {
  if (!files.contains("template/html/n.xsl")) {
    return In(PlainFind(files, "", true, "n.xsl").value_or("html/n.xsl"));
  }
  string text = Include(In("template/html/n.xsl"));
  bool isPortuguese = true;
  std::optional<string> path = PlainFind(files, "template/", true, "n.xsl");
  if (!path) {
    isPortuguese = false;
    path = PlainFind(files, "template/", false, "n.xsl");
  }
  if (path) text += Include(In(*path));
  path = PlainFind(files, "template/", isPortuguese, "globals.xsl");
  if (!path) path = PlainFind(files, "template/", false, "globals.xsl");
  if (path) text += Include(In(*path));
  return text;
}

}  // namespace

TEST(GetXSLPathLocale, AgreesWithAPlainImplementationForEveryCombinationOfFiles) {
  sandbox::RequireSandbox();
  for (const char *path : kCandidates) {
    ASSERT_NO_FATAL_FAILURE(MakeFile(In(path)));
    ASSERT_EQ(unlink(In(path).c_str()), 0);
  }
  Files files;
  for (unsigned step = 0; step < 1u << kCandidates.size(); ++step) {
    ASSERT_EQ(Taken(SUPTIntfGetXSLPathLocale("app", "html", "n.xsl", "pt_BR", 0, 0)), PlainGet(files)) << step;
    // From one combination to the next, one file comes or goes.
    size_t index = 0;
    while (index + 1 < kCandidates.size() && ((step + 1) >> index & 1u) == 0) ++index;
    const string path = kCandidates[index];
    if (files.erase(path) != 0) {
      ASSERT_EQ(unlink(In(path).c_str()), 0);
    } else {
      files.insert(path);
      ASSERT_TRUE(sandbox::WriteFile(In(path), ""));
    }
  }
}

TEST(GetXSLPathLocale, WhateverHasTheNameExists) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFile(In("template/html/n.xsl")));
  ASSERT_TRUE(sandbox::MakeDirectories(In("template/de/html/n.xsl")));
  const string includes = Include(In("template/html/n.xsl")) + Include(In("template/de/html/n.xsl"));
  EXPECT_EQ(Get("de"), includes) << "a file and a folder";
  ASSERT_EQ(symlink("nowhere", In("template/de/html/globals.xsl").c_str()), 0);
  EXPECT_EQ(Get("de"), includes) << "a link to nothing";
  ASSERT_TRUE(sandbox::WriteFile(In("template/de/html/nowhere"), ""));
  EXPECT_EQ(Get("de"), includes + Include(In("template/de/html/globals.xsl"))) << "a link to something";
}

TEST(GetXSLPathLocale, FilesNeedNotBeReadable) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFiles({"template/html/n.xsl", "template/de/html/n.xsl"}));
  for (const char *path : {"template/html/n.xsl", "template/de/html/n.xsl"}) ASSERT_EQ(chmod(In(path).c_str(), 0), 0);
  constexpr uid_t kNobody = 65534;
  sandbox::Process process;
  ASSERT_TRUE(process.Start([](sandbox::Channel &) {
    if (sandbox::CanSwitchAccounts()) {  // else the account may read everything
      EXPECT_EQ(setresuid(kNobody, kNobody, kNobody), 0);
      EXPECT_NE(access(In("template/html/n.xsl").c_str(), R_OK), 0);
    }
    EXPECT_EQ(Get("de"), Include(In("template/html/n.xsl")) + Include(In("template/de/html/n.xsl")));
    return 0;
  }));
  EXPECT_EQ(process.Wait(), 0);
}

// --- What comes in, what goes out -----------------------------------------------------------------------------------

TEST(GetXSLPathLocale, IsNullWithoutAnApplicationATypeOrAName) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFiles({"template/html/n.xsl", "html/n.xsl"}));
  for (const auto get : kGetters) {
    for (const char *missing : {static_cast<const char *>(nullptr), ""}) {
      EXPECT_EQ(get(missing, "html", "n.xsl", "de", 0, 0), nullptr);
      EXPECT_EQ(get("app", missing, "n.xsl", "de", 0, 0), nullptr);
      EXPECT_EQ(get("app", "html", missing, "de", 0, 0), nullptr);
      EXPECT_EQ(get(missing, missing, missing, missing, 14, 1), nullptr);
    }
  }
}

TEST(GetXSLPathLocale, IsNullForALocaleCodeOfMoreThanFiveCharacters) {
  sandbox::RequireSandbox();
  const string longest(100000, 'x');
  for (const bool hasTemplate : {false, true}) {
    if (hasTemplate) {
      ASSERT_NO_FATAL_FAILURE(MakeFile(In("template/html/n.xsl")));
    }
    for (const char *code : {"en_USA", "eng_US", "______", "en_US.UTF-8", "abcdef", longest.c_str()}) {
      for (const auto get : kGetters) EXPECT_EQ(get("app", "html", "n.xsl", code, 0, 0), nullptr) << code;
    }
    for (const char *code : {"en_US", "abcde", "_____", "a", "_"}) EXPECT_NE(Get(code), "(null)") << code;
  }
}

TEST(GetXSLPathLocale, BlanksAndBackslashesAreMadeAURI) {
  sandbox::RequireSandbox();
  const char *const app = " my app";
  const char *const type = "a\\b c";
  const char *const name = "n  %20&<\">\xC3\xA9.xsl ";
  const string folder = AppPath("%20my%20app");
  const string rest = "/a/b%20c/n%20%20%20&<\">\xC3\xA9.xsl%20";
  for (const auto get : kGetters) EXPECT_EQ(Taken(get(app, type, name, "de", 0, 0)), folder + rest);
  ASSERT_NO_FATAL_FAILURE(MakeFile(AppPath(app) + "/de/" + type + "/" + name));
  for (const auto get : kGetters) EXPECT_EQ(Taken(get(app, type, name, "de", 0, 0)), folder + "/de" + rest);
  ASSERT_NO_FATAL_FAILURE(MakeFile(AppPath(app) + "/template/" + type + "/" + name));
  ASSERT_NO_FATAL_FAILURE(MakeFile(AppPath(app) + "/template/d e/" + type + "/" + name));
  for (const auto get : kGetters) {
    EXPECT_EQ(Taken(get(app, type, name, "d e", 0, 0)), "<xsl:include href=\"" + folder + "/template" + rest +
                                                            "\" /><xsl:include href=\"" + folder + "/template/d%20e" +
                                                            rest + "\" />")
        << "nothing is escaped for XML";
  }
}

TEST(GetXSLPathLocale, ConsoleGetsWhatEverybodyGets) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFiles({"template/a\\b/n\\.xsl", "template/de/a\\b/n\\.xsl"}));
  const string includes = "<xsl:include href=\"" + In("template/a/b/n/.xsl\" />") + "<xsl:include href=\"" +
                          In("template/de/a/b/n/.xsl\" />");
  for (const auto get : kGetters) {
    for (const booln isConsole : kNoAndYes) {
      EXPECT_EQ(Taken(get("app", "a\\b", "n\\.xsl", "de", 14, isConsole)), Around(14, includes)) << isConsole;
      EXPECT_EQ(Taken(get("app", "a\\b", "m\\.xsl", "de", 14, isConsole)), In("a/b/m/.xsl")) << isConsole;
    }
  }
}

TEST(GetXSLPathLocale, TextsAreTakenAsTheyAre) {
  sandbox::RequireSandbox();
  for (const auto get : kGetters) {
    EXPECT_EQ(Taken(get("%s%n", "%d", "%s", "%s", 0, 0)), AppPath("%s%n") + "/%d/%s");
    EXPECT_EQ(Taken(get("../app", "/html/", "/n.xsl", "de", 0, 0)), AppPath("../app") + "//html///n.xsl");
  }
}

TEST(GetXSLPathLocale, ResultIsAlwaysNewMemory) {
  sandbox::RequireSandbox();
  for (const bool hasTemplate : {false, true}) {
    if (hasTemplate) {
      ASSERT_NO_FATAL_FAILURE(MakeFile(In("template/html/n.xsl")));
    }
    const string expected = hasTemplate ? Include(In("template/html/n.xsl")) : In("html/n.xsl");
    astring *const first = KCSGetXSLPathLocale("app", "html", "n.xsl", nullptr, 0, 0);
    astring *const second = SUPTIntfGetXSLPathLocale("app", "html", "n.xsl", nullptr, 0, 0);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_NE(first, second);
    std::memset(first, 'x', expected.size());
    EXPECT_EQ(string(second), expected) << "a caller's change is the caller's own";
    KCSFreeMem(first);
    SUPTFreeMem(second);
  }
}

TEST(GetXSLPathLocale, SeveralThreadsMayAskAtOnce) {
  sandbox::RequireSandbox();
  ASSERT_NO_FATAL_FAILURE(MakeFiles({"template/html/n.xsl", "template/pt/html/n.xsl"}));
  const string expected = Include(In("template/html/n.xsl")) + Include(In("template/pt/html/n.xsl"));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&expected] {
      for (int round = 0; round < 100; ++round) {
        EXPECT_EQ(Get("pt_BR"), expected);
        EXPECT_EQ(Get("pt_BR", 0, "other.xsl"), In("html/other.xsl"));
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

// --- Limits ---------------------------------------------------------------------------------------------------------

namespace {

// Of a wrapper of up to three files that exist: the template, the localized stylesheet and globals.
void ExpectWrapperIfItFits(const std::vector<string> &paths, const string &text, const string &app, const string &name,
                           const char *locale, u32 mask) {
  for (const string &path : paths) ASSERT_NO_FATAL_FAILURE(MakeFile(path));
  const string expected = text.size() <= kLongestWrapper ? text : "(null)";
  for (const auto get : kGetters) {
    EXPECT_EQ(Taken(get(app.c_str(), "t", name.c_str(), locale, mask, 0)), expected) << text.size();
  }
  ASSERT_TRUE(sandbox::RemoveTree(AppPath(app)));
}

// Lengths around the longest, reached by blanks in the application's name and letters in the stylesheet's.
void ExpectLimit(u32 mask, size_t includes, const char *locale, std::set<size_t> &lengths) {
  for (size_t blanks = 1; blanks < 150; ++blanks) {
    for (size_t letters = 1; letters <= 9; ++letters) {
      const string app(blanks, ' ');
      const string name(letters, 'n');
      const string folder = AppPath(app) + "/template/";
      std::vector<string> paths = {folder + "t/" + name, folder + locale + "/t/" + name,
                                   folder + locale + "/t/globals.xsl"};
      paths.resize(includes);
      string text;
      for (const string &path : paths) text += Include(path);
      text = Around(mask, text);
      if (text.size() < kLongestWrapper - 12 || text.size() > kLongestWrapper + 12) continue;
      lengths.insert(text.size());
      ASSERT_NO_FATAL_FAILURE(ExpectWrapperIfItFits(paths, text, app, name, locale, mask));
    }
  }
}

}  // namespace

TEST(GetXSLPathLocale, WrapperOfMoreThan512CharactersIsNone) {
  sandbox::RequireSandbox();
  for (const u32 mask : {0u, 14u}) {
    for (size_t includes = 1; includes <= 3; ++includes) {
      std::set<size_t> lengths;
      for (const char *locale : {"d", "de"}) ASSERT_NO_FATAL_FAILURE(ExpectLimit(mask, includes, locale, lengths));
      EXPECT_TRUE(lengths.contains(kLongestWrapper)) << mask << ' ' << includes;
      EXPECT_TRUE(lengths.contains(kLongestWrapper + 1)) << mask << ' ' << includes;
    }
  }
}

TEST(GetXSLPathLocale, LongestURIsMakeNoWrapper) {
  sandbox::RequireSandbox();
  const string app(180, ' ');
  ASSERT_NO_FATAL_FAILURE(MakeFile(AppPath(app) + "/template/t/n"));
  for (const auto get : kGetters) {
    for (const u32 mask : {0u, 14u}) EXPECT_EQ(get(app.c_str(), "t", "n", "de", mask, 0), nullptr);
    EXPECT_EQ(Taken(get(app.c_str(), "t", "m", "de", 14, 0)), URI(AppPath(app) + "/t/m")) << "a path is not limited so";
  }
}

TEST(GetXSLPathLocale, PathIsCutAt255Characters) {
  sandbox::RequireSandbox();
  const size_t room = kLongestPath - In("html/").size();
  for (const char letter : {'n', ' '}) {
    for (size_t length = room - 2; length <= room + 3; ++length) {
      const string name(length, letter);
      EXPECT_EQ(Get("de", 14, name.c_str()), URI(In("html/" + name).substr(0, kLongestPath))) << length;
    }
  }
  const string longest(100000, ' ');
  const string blanks(kLongestPath, ' ');
  for (const auto get : kGetters) {
    EXPECT_EQ(Taken(get(longest.c_str(), longest.c_str(), longest.c_str(), "de", 14, 0)),
              URI(AppPath(blanks).substr(0, kLongestPath)));
    EXPECT_EQ(Taken(get("app", longest.c_str(), longest.c_str(), "de", 14, 0)),
              URI(In(blanks).substr(0, kLongestPath)));
  }
}

TEST(GetXSLPathLocale, CutPathIsTheOneThatIsLookedFor) {
  sandbox::RequireSandbox();
  const string name(250, 'n');
  ASSERT_NO_FATAL_FAILURE(MakeFile(In("de/html/" + name).substr(0, kLongestPath)));
  EXPECT_EQ(Get("de", 0, name.c_str()), In("de/html/" + name).substr(0, kLongestPath));
  ASSERT_NO_FATAL_FAILURE(MakeFile(In("template/html/" + name).substr(0, kLongestPath)));
  EXPECT_EQ(Get("de", 0, name.c_str()), Include(In("template/html/" + name).substr(0, kLongestPath)));
}

// --- One path -------------------------------------------------------------------------------------------------------

TEST(GetXSLPath, JoinsThePieces) {
  const struct {
    const char *app;
    const char *type;
    const char *name;
    const char *locale;
    booln usesTemplate;
    const char *expected;
  } cases[] = {
      {"/r//app", "html", "n.xsl", nullptr, 0, "/r//app/html/n.xsl"},
      {"/r//app", "html", "n.xsl", nullptr, 1, "/r//app/template/html/n.xsl"},
      {"/r//app", "html", "n.xsl", "en/US", 0, "/r//app/en/US/html/n.xsl"},
      {"/r//app", "html", "n.xsl", "en/US", 1, "/r//app/template/en/US/html/n.xsl"},
      {"/r//app", "html", "n.xsl", "en_US", 0, "/r//app/en_US/html/n.xsl"},
      {"/r//app", "html", "n.xsl", "as long as it likes", 1, "/r//app/template/as long as it likes/html/n.xsl"},
      {"/r//app", "html", "n.xsl", "", 0, "/r//app/html/n.xsl"},
      {"/r//app", "html", "n.xsl", "", 2, "/r//app/template/html/n.xsl"},
      {"r", "t", "n", "l", -1, "r/template/l/t/n"},
      {"", "", "", nullptr, 0, "//"},
      {"", "", "", "l", 1, "/template/l//"},
      {"a b", "c\\d", "%s", "e f", 0, "a b/e f/c\\d/%s"},  // a path, not a URI
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Taken(SIGetXSLPath(c.app, c.type, c.name, c.locale, c.usesTemplate, 0)), c.expected);
  }
}

TEST(GetXSLPath, IsCutAt255Characters) {
  const struct {
    size_t app;
    size_t type;
    size_t name;
    size_t locale;
  } cases[] = {
      {100, 50, 101, 0}, {100, 50, 102, 0},        {100, 50, 103, 0},  {100, 50, 104, 0}, {100, 50, 104, 5},
      {100, 50, 500, 5}, {100, 500, 10, 5},        {100, 10, 10, 500}, {253, 1, 1, 1},    {254, 1, 1, 1},
      {255, 1, 1, 1},    {256, 1, 1, 1},           {500, 1, 1, 1},     {246, 5, 5, 0},    {245, 5, 5, 0},
      {244, 5, 5, 0},    {240, 0, 20, 13},         {240, 0, 20, 14},   {240, 0, 20, 15},  {100, 154, 9, 0},
      {100, 153, 9, 0},  {100, 152, 9, 0},         {0, 0, 252, 0},     {0, 0, 253, 0},    {0, 0, 254, 0},
      {0, 253, 9, 0},    {9999, 9999, 9999, 9999},
  };
  for (const auto &c : cases) {
    const string app(c.app, 'a');
    const string type(c.type, 't');
    const string name(c.name, 'n');
    const string locale(c.locale, 'l');
    const string folders = locale.empty() ? "" : locale + "/";
    for (const booln usesTemplate : kNoAndYes) {
      const string whole = app + "/" + (usesTemplate != 0 ? "template/" : "") + folders + type + "/" + name;
      EXPECT_EQ(Taken(SIGetXSLPath(app.c_str(), type.c_str(), name.c_str(), locale.c_str(), usesTemplate, 0)),
                whole.substr(0, kLongestPath))
          << c.app << ' ' << c.type << ' ' << c.name << ' ' << c.locale;
    }
  }
}

TEST(GetXSLPath, MustExistWhereThatIsAskedFor) {
  const sandbox::TemporaryDirectory directory;
  const char *const app = directory.path().c_str();
  EXPECT_EQ(SIGetXSLPath(app, "html", "n.xsl", nullptr, 0, 1), nullptr);
  ASSERT_NO_FATAL_FAILURE(MakeFile(directory.Path("html/n.xsl")));
  for (const booln validates : kYes) {
    EXPECT_EQ(Taken(SIGetXSLPath(app, "html", "n.xsl", nullptr, 0, validates)), directory.Path("html/n.xsl"));
    EXPECT_EQ(SIGetXSLPath(app, "html", "n.xsl", nullptr, 1, validates), nullptr);
    EXPECT_EQ(SIGetXSLPath(app, "html", "n.xsl", "en/US", 0, validates), nullptr);
    EXPECT_EQ(SIGetXSLPath(app, "html", "m.xsl", nullptr, 0, validates), nullptr);
  }
  ASSERT_NO_FATAL_FAILURE(MakeFile(directory.Path("template/en/US/html/n.xsl")));
  EXPECT_EQ(Taken(SIGetXSLPath(app, "html", "n.xsl", "en/US", 1, 1)), directory.Path("template/en/US/html/n.xsl"));
  EXPECT_EQ(SIGetXSLPath(app, "html", "n.xsl", "en_US", 1, 1), nullptr) << "the folders are as the caller writes them";
}

TEST(GetXSLPath, IsNullWithoutAnArgument) {
  for (const booln validates : kNoAndYes) {
    EXPECT_EQ(SIGetXSLPath(nullptr, "t", "n", "l", 0, validates), nullptr);
    EXPECT_EQ(SIGetXSLPath("/", nullptr, "n", "l", 0, validates), nullptr);
    EXPECT_EQ(SIGetXSLPath("/", "t", nullptr, "l", 0, validates), nullptr);
    EXPECT_EQ(SIGetXSLPathLocalePermutate(nullptr, "t", "n", "l", 0, validates), nullptr);
    EXPECT_EQ(SIGetXSLPathLocalePermutate("/", nullptr, "n", "l", 0, validates), nullptr);
    EXPECT_EQ(SIGetXSLPathLocalePermutate("/", "t", nullptr, "l", 0, validates), nullptr);
    EXPECT_EQ(SIGetXSLPathLocalePermutate("/", "t", "n", nullptr, 0, validates), nullptr);
  }
}

TEST(GetXSLPath, ResultIsAlwaysNewMemory) {
  astring *const first = SIGetXSLPath("a", "t", "n", nullptr, 0, 0);
  astring *const second = SIGetXSLPathLocalePermutate("a", "t", "n", "l", 0, 0);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(first, "a/t/n");
  EXPECT_STREQ(second, "a/l/t/n");
  KCSFreeMem(first);
  SUPTFreeMem(second);
}

TEST(GetXSLPathLocalePermutate, TriesTheCountryAndThenTheLanguage) {
  const struct {
    const char *code;
    std::vector<string> files;
    const char *expected;  // null for none
  } cases[] = {
      {"en_US", {"en/US/t/n", "en/t/n"}, "en/US/t/n"},
      {"en_US", {"en/t/n"}, "en/t/n"},
      {"en_US", {"en/US/t/n"}, "en/US/t/n"},
      {"en_US", {"t/n", "en_US/t/n", "US/t/n", "en/GB/t/n"}, nullptr},
      {"de", {"de/t/n"}, "de/t/n"},
      {"de", {"de/DE/t/n", "t/n"}, nullptr},
      {"abcde", {"abcde/t/n"}, "abcde/t/n"},
      {"a_b_c", {"a/b_c/t/n", "a/t/n"}, "a/b_c/t/n"},
      {"a_b_c", {"a/t/n", "a_b/t/n"}, "a/t/n"},
      {"_US", {"US/t/n"}, "/US/t/n"},
      {"_US", {"t/n"}, nullptr},
      {"en_", {"en/t/n"}, "en//t/n"},
      {"en_USA", {"en/USA/t/n", "en/t/n"}, nullptr},
      {"abcdef", {"abcdef/t/n"}, nullptr},
  };
  for (const auto &c : cases) {
    for (const booln usesTemplate : kNoAndYes) {
      const sandbox::TemporaryDirectory directory;
      const string folder = directory.Path(usesTemplate != 0 ? "template/" : "");
      for (const string &file : c.files) ASSERT_NO_FATAL_FAILURE(MakeFile(folder + file));
      const string expected = c.expected != nullptr ? folder + c.expected : "(null)";
      const char *const app = directory.path().c_str();
      EXPECT_EQ(Taken(SIGetXSLPathLocalePermutate(app, "t", "n", c.code, usesTemplate, 1)), expected) << c.code;
      EXPECT_EQ(SIGetXSLPathLocalePermutate(app, "t", "n", c.code, !usesTemplate, 1), nullptr) << c.code;
    }
  }
}

TEST(GetXSLPathLocalePermutate, FirstPathWillDoWhereNoneMustExist) {
  const struct {
    const char *code;
    const char *expected;
  } cases[] = {
      {"en_US", "a/template/en/US/t/n"},
      {"de", "a/template/de/t/n"},
      {"a_b_c", "a/template/a/b_c/t/n"},
      {"abcde", "a/template/abcde/t/n"},
      {"_US", "a/template//US/t/n"},
      {"en_", "a/template/en//t/n"},
      {"en_USA", "(null)"},
      {"abcdef", "(null)"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Taken(SIGetXSLPathLocalePermutate("a", "t", "n", c.code, 1, 0)), c.expected) << c.code;
  }
}

TEST(GetXSLPathLocalePermutate, LeavesTheCodeAsItIs) {
  const sandbox::GuardedBuffer memory(sizeof "en_US");
  std::memcpy(memory.data<char>(), "en_US", sizeof "en_US");
  EXPECT_EQ(SIGetXSLPathLocalePermutate("nowhere", "t", "n", memory.data<char>(), 0, 1), nullptr);
  EXPECT_STREQ(memory.data<char>(), "en_US");
}

// --- Text -----------------------------------------------------------------------------------------------------------

TEST(ConvertPathToURI, ReplacesBlanksAndBackslashes) {
  const struct {
    const char *path;
    const char *expected;
  } cases[] = {
      {"", ""},
      {" ", "%20"},
      {"   ", "%20%20%20"},
      {"\\", "/"},
      {"\\ \\", "/%20/"},
      {"/a b/c", "/a%20b/c"},
      {" a ", "%20a%20"},
      {"c:\\a b\\c", "c:/a%20b/c"},
      {"a%20b", "a%20b"},
      {"\ta\nb+&?#\xC3\xA9\xC2\xA0", "\ta\nb+&?#\xC3\xA9\xC2\xA0"},
  };
  for (const auto &c : cases) EXPECT_EQ(Taken(ConvertPathToURI(c.path)), c.expected) << c.path;
  EXPECT_EQ(ConvertPathToURI(nullptr), nullptr);
}

TEST(ConvertPathToURI, OfEveryCharacterAndLength) {
  for (int c = 1; c < 256; ++c) {
    const string path = {'a', static_cast<char>(c), static_cast<char>(c), 'b'};
    EXPECT_EQ(Taken(ConvertPathToURI(path.c_str())), URI(path)) << c;
  }
  for (const size_t length : {1u, 7u, 84u, 85u, 86u, 255u, 256u, 1000u, 100000u}) {
    for (const char c : {'x', ' ', '\\'}) {
      const sandbox::GuardedBuffer memory(length + 1);
      std::memset(memory.data<char>(), c, length);
      memory.data<char>()[length] = 0;
      EXPECT_EQ(Taken(ConvertPathToURI(memory.data<char>())), URI(string(length, c))) << length;
      EXPECT_EQ(string(memory.data<char>()), string(length, c)) << "the path stays";
    }
  }
}

TEST(ConvertPathToURI, ResultIsAlwaysNewMemory) {
  const char path[] = "nothing-to-replace";
  astring *const uri = ConvertPathToURI(path);
  ASSERT_NE(uri, nullptr);
  EXPECT_NE(uri, path);
  EXPECT_STREQ(uri, path);
  KCSFreeMem(uri);
}

TEST(GetRelativePath, IsTheFirstPlaceOfTheKeyword) {
  const struct {
    const char *text;
    const char *keyword;
    int expected;  // an index, -1 for none
  } cases[] = {
      {"/opt/app/xsl/n", "app", 5},
      {"/app/app", "app", 1},
      {"aaab", "aab", 1},
      {"abc", "abc", 0},
      {"abc", "abcd", -1},
      {"abc", "C", -1},
      {"", "a", -1},
      {"abc", "", 0},
      {"", "", 0},
      {"myapplication", "app", 2},
      {"a/b", "/", 1},
      {"a.c", "a?c", -1},
  };
  for (const auto &c : cases) {
    const char *const expected = c.expected < 0 ? nullptr : c.text + c.expected;
    EXPECT_EQ(static_cast<const void *>(GetRelativePath(c.text, c.keyword)), static_cast<const void *>(expected))
        << c.text << ' ' << c.keyword;
  }
  EXPECT_EQ(GetRelativePath(nullptr, "a"), nullptr);
  EXPECT_EQ(GetRelativePath("a", nullptr), nullptr);
}
