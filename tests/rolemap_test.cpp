// The role-map file: its check, its lines, its errors, and what the reader is like after each.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <clocale>
#include <deque>
#include <exception>
#include <filesystem>
#include <locale>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "sandbox.h"
#include "zebcs/rolemap.hpp"

// A grant as tests write it, in the namespace of its type so that a failure can print it.
struct Grant {
  std::wstring name;
  std::wstring host;
  s32 privilege;

  bool operator==(const Grant &) const = default;
  friend std::ostream &operator<<(std::ostream &out, const Grant &grant) {
    return out << '(' << testing::PrintToString(grant.name) << ", " << testing::PrintToString(grant.host) << ", "
               << grant.privilege << ')';
  }
};

namespace {

using Grants = std::vector<Grant>;

// What came of a step: the error and its line, or none.
struct Outcome {
  int code = 0;
  unsigned long line = 0;

  bool operator==(const Outcome &) const = default;
  friend std::ostream &operator<<(std::ostream &out, const Outcome &outcome) {
    return out << "code " << outcome.code << " line " << outcome.line;
  }
};

template <class Step>
Outcome OutcomeOf(Step step) {
  try {
    step();
  } catch (const ZEBRoleMapFileReaderException &error) {
    return {error.getErrorCode(), error.GetLineNumber()};
  }
  return {};
}

QXAuthFileReader &Reader() { return QXAuthFileReader::GetInstance(); }

Outcome Open() {
  return OutcomeOf([] { Reader().Open(); });
}

Outcome GetRecords() {
  return OutcomeOf([] { Reader().GetRecords(); });
}

Outcome Load() {
  const Outcome outcome = Open();
  return outcome == Outcome{} ? GetRecords() : outcome;
}

Grants GrantsOf(const std::deque<QXAuthFileRecord *> &records) {
  Grants grants;
  std::deque<ZEBRole *> roles;
  for (const QXAuthFileRecord *record : records) {
    record->GetRoles(roles);
    for (const ZEBRole *role : roles) grants.push_back({role->szUserName, role->szHostName, role->nPerm});
  }
  return grants;
}

Grants CurrentGrants() { return GrantsOf(Reader().GetRecords()); }

std::vector<unsigned long> LineNumbers() {
  std::vector<unsigned long> numbers;
  for (const QXAuthFileRecord *record : Reader().GetRecords()) numbers.push_back(record->GetLineNumber());
  return numbers;
}

// Each text gets a modification time of its own, so that the reader sees the file change.
void WriteRoleMap(const std::string &text, mode_t mode = 0640) {
  static time_t time = 1000000;
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, text, mode, ++time));
}

// How many descriptors of this process lead to the role-map file.
int OpenDescriptors() {
  int count = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;  // the descriptor of this walk is gone when it is asked about
    if (std::filesystem::read_symlink(entry.path(), error) == sandbox::kRoleMapPath) ++count;
  }
  return count;
}

// What one entry line gives.
struct LineResult {
  Outcome outcome;
  Grants grants;
};

LineResult ResultOfLine(const std::wstring &line) {
  QXAuthFileRecord record(line, 5);
  LineResult result;
  result.outcome = OutcomeOf([&] { record.PopulateZEBRoles(); });
  std::deque<ZEBRole *> roles;
  record.GetRoles(roles);
  for (const ZEBRole *role : roles) result.grants.push_back({role->szUserName, role->szHostName, role->nPerm});
  return result;
}

const Grants kDefaults = {{L"root", L"*", 7}, {L"+root", L"*", 3}, {L"*", L"*", 1}};

constexpr Outcome kNotFound{FILE_NOT_FOUND, 0};
constexpr Outcome kBadMode{FILE_PERMS_ERROR, 0};
constexpr Outcome kEmpty{FILE_EMPTY, 0};

}  // namespace

TEST(QXAuthFileRecord, Lines) {
  const Outcome good{};
  const Outcome bad{FILE_FORMAT_ERROR, 5};
  const struct {
    const char *what;
    std::wstring line;
    Outcome outcome;
    Grants grants;
  } cases[] = {
      {"one name, any host", L"root * administrator", good, {{L"root", L"*", 7}}},
      {"names outside, hosts inside",
       L"+wheel,alice host1,*.lab.example poweruser",
       good,
       {{L"+wheel", L"host1", 3},
        {L"+wheel", L"*.lab.example", 3},
        {L"alice", L"host1", 3},
        {L"alice", L"*.lab.example", 3}}},
      {"host and role in capitals", L"bob HOST2 User", good, {{L"bob", L"host2", 1}}},
      {"anyone", L"* * user", good, {{L"*", L"*", 1}}},
      {"unknown role", L"carol * operator", bad, {}},
      {"missing role", L"dave *", bad, {}},
      {"host that is a number sign", L"alice # administrator", good, {{L"alice", L"#", 7}}},
      {"name that begins with a number sign", L"#alice * user", good, {{L"#alice", L"*", 1}}},
      {"name keeps its capitals", L"Alice Host1.Example PowerUser", good, {{L"Alice", L"host1.example", 3}}},
      {"two names", L"alice,bob host1 user", good, {{L"alice", L"host1", 1}, {L"bob", L"host1", 1}}},
      {"comma at the end of the names", L"alice, * user", good, {{L"alice", L"*", 1}, {L"", L"*", 1}}},
      {"comma at the start of the names", L",alice * user", good, {{L"", L"*", 1}, {L"alice", L"*", 1}}},
      {"two commas", L"a,,b * user", good, {{L"a", L"*", 1}, {L"", L"*", 1}, {L"b", L"*", 1}}},
      {"comma at the end of the hosts", L"a h, user", good, {{L"a", L"h", 1}, {L"a", L"", 1}}},
      {"two commas in the hosts", L"a h,,k user", good, {{L"a", L"h", 1}, {L"a", L"", 1}, {L"a", L"k", 1}}},
      {"comma at the start of the hosts", L"a ,h user", good, {{L"a", L"", 1}, {L"a", L"h", 1}}},
      {"commas alone", L", , user", good, {{L"", L"", 1}, {L"", L"", 1}, {L"", L"", 1}, {L"", L"", 1}}},
      {"blank after a comma shifts the columns", L"alice, bob * user", bad, {}},
      {"blank after a comma makes the rest the host",
       L"alice, bob user",
       good,
       {{L"alice", L"bob", 1}, {L"", L"bob", 1}}},
      {"fourth column", L"bob * user extra", good, {{L"bob", L"*", 1}}},
      {"carriage return in a fourth column", L"bob * user \r", good, {{L"bob", L"*", 1}}},
      {"number sign after the role is no comment", L"bob * user#", bad, {}},
      {"comma after the role", L"bob * user,", bad, {}},
      {"tabs and runs of blanks", L"bob\t\t*  \t user", good, {{L"bob", L"*", 1}}},
      {"role in capitals", L"bob * ADMINISTRATOR", good, {{L"bob", L"*", 7}}},
      {"role with more letters", L"bob * users", bad, {}},
      {"role with fewer letters", L"bob * use", bad, {}},
      {"carriage return", L"bob * user\r", bad, {}},
      {"one column", L"bob", bad, {}},
      {"one column and a blank", L"bob ", bad, {}},
      {"one column and blanks", L"bob \t ", bad, {}},
      {"carriage return alone", L"\r", bad, {}},
      {"empty line", L"", bad, {}},
      {"blanks alone", L"  \t", bad, {}},
      {"blanks around the line", L" \tbob * user\t ", good, {{L"bob", L"*", 1}}},
      {"two columns and a blank", L"bob * ", bad, {}},
      {"same name twice", L"a,a * user", good, {{L"a", L"*", 1}, {L"a", L"*", 1}}},
      {"other characters are kept", L"d\u00e9j\u00e0 \u00c9 user", good, {{L"d\u00e9j\u00e0", L"\u00c9", 1}}},
      {"vertical tab is no blank", L"a\vb * user", good, {{L"a\vb", L"*", 1}}},
      {"no-break space is no blank", L"a\u00a0b * user", good, {{L"a\u00a0b", L"*", 1}}},
      {"zero is a character", std::wstring(L"a\0b * user", 10), good, {{std::wstring(L"a\0b", 3), L"*", 1}}},
      {"zero after the role", std::wstring(L"b * user\0", 9), bad, {}},
      {"group without a name", L"+ * user", good, {{L"+", L"*", 1}}},
      {"percent sign means nothing", L"%5 * user", good, {{L"%5", L"*", 1}}},
      {"wide letter that resembles one of the role", L"bob * u\u017fer", bad, {}},
      {"wide letter whose last byte is a capital", L"a \u0141\u4141 user", good, {{L"a", L"\u0141\u4141", 1}}},
  };
  for (const auto &c : cases) {
    const LineResult result = ResultOfLine(c.line);
    EXPECT_EQ(result.outcome, c.outcome) << c.what;
    EXPECT_EQ(result.grants, c.grants) << c.what;
  }
}

TEST(QXAuthFileRecord, FoldsHostsAsTheSystemFoldsSingleBytesAndNamesNever) {
  for (const char *locale : {"C", "C.UTF-8"}) {
    ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr);
    for (int code = 1; code < 0x180; ++code) {
      if (code == ' ' || code == '\t' || code == ',') continue;
      const std::wstring character(1, static_cast<wchar_t>(code));
      const std::wstring folded(1, static_cast<wchar_t>(code <= 0xFF ? std::tolower(code) : code));
      const LineResult result = ResultOfLine(character + L" " + character + L" user");
      EXPECT_EQ(result.outcome, Outcome{}) << code << locale;
      EXPECT_EQ(result.grants, (Grants{{character, folded, 1}})) << code << locale;
    }
  }
}

TEST(QXAuthFileRecord, IsDestroyedThroughItsBase) {
  EXPECT_TRUE(std::has_virtual_destructor_v<QXAuthFileRecord>);
  EXPECT_FALSE(std::is_copy_constructible_v<QXAuthFileRecord>) << "it owns its grants";
}

TEST(QXAuthFileRecord, GetRolesReplacesWhatWasThere) {
  QXAuthFileRecord record(L"a h user", 3);
  record.PopulateZEBRoles();
  std::deque<ZEBRole *> roles(5, nullptr);
  record.GetRoles(roles);
  ASSERT_EQ(roles.size(), 1u);
  EXPECT_EQ(roles[0]->szUserName, L"a");
  EXPECT_EQ(record.GetLineNumber(), 3u);
  QXAuthFileRecord unparsed(L"a h user", 0);
  unparsed.GetRoles(roles);
  EXPECT_TRUE(roles.empty()) << "the constructor does not parse";
}

TEST(ZEBRole, StartsEmpty) {
  const ZEBRole role;
  EXPECT_TRUE(role.szUserName.empty() && role.szHostName.empty());
  EXPECT_EQ(role.nPerm, 0);
}

TEST(ZEBRoleMapFileReaderException, KeptCommandIdsAreNotInCodeOrder) {
  const struct {
    int code;
    int commandId;
  } cases[] = {{FILE_NOT_FOUND, 5912},
               {FILE_FORMAT_ERROR, 5911},
               {MEMORY_ALLOCATION_FAILURE, 5915},
               {FILE_PERMS_ERROR, 5913},
               {FILE_EMPTY, 5914},
               {DUPLICATE_ENTRY, 5916},
               {0, 5900},
               {7, 5900}};
  for (const auto &c : cases) {
    const ZEBRoleMapFileReaderException error(static_cast<fileReadErrorCode>(c.code), 12);
    EXPECT_EQ(error.MapErrorCodeToCmdId(), c.commandId) << c.code;
    EXPECT_EQ(error.getErrorCode(), c.code);
    EXPECT_EQ(error.GetCode(), c.code);
    EXPECT_EQ(error.GetLineNumber(), 12u);
    EXPECT_STRNE(error.what(), "");
  }
  const ZEBRoleMapFileReaderException unset;
  EXPECT_EQ(unset.GetLineNumber(), 0u);
  EXPECT_EQ(unset.MapErrorCodeToCmdId(), 5900);
  EXPECT_EQ(FILE_NOT_FOUND, 1);
  EXPECT_EQ(FILE_FORMAT_ERROR, 2);
  EXPECT_EQ(MEMORY_ALLOCATION_FAILURE, 3);
  EXPECT_EQ(FILE_PERMS_ERROR, 4);
  EXPECT_EQ(FILE_EMPTY, 5);
  EXPECT_EQ(DUPLICATE_ENTRY, 6);
}

TEST(ZEBRoleMapFileReaderException, IsAnExceptionOfTheSupportLibrary) {
  const auto thrown = [] { throw ZEBRoleMapFileReaderException(FILE_FORMAT_ERROR, 4); };
  EXPECT_THROW(thrown(), VornSupport::VornException);
  EXPECT_THROW(thrown(), std::exception);
}

TEST(QXAuthFileReader, IsOneAndCannotBeCopied) {
  EXPECT_EQ(&QXAuthFileReader::GetInstance(), &QXAuthFileReader::GetInstance());
  EXPECT_FALSE(std::is_copy_constructible_v<QXAuthFileReader>);
  EXPECT_FALSE(std::is_copy_assignable_v<QXAuthFileReader>);
}

TEST(Open, MissingFile) {
  sandbox::RequireSandbox();
  EXPECT_EQ(Open(), kNotFound);
  EXPECT_EQ(GetRecords(), kNotFound) << "there is no stream to read";
}

TEST(Open, ModesAreExact) {
  sandbox::RequireSandbox();
  for (const mode_t mode : {0644u, 0600u, 0660u, 0440u, 0000u, 0641u, 0740u, 04640u, 02640u, 01644u}) {
    WriteRoleMap("a * user\n", mode);
    EXPECT_EQ(Open(), kBadMode) << std::oct << mode;
  }
  WriteRoleMap("a * user\n", 0640);
  EXPECT_EQ(Load(), Outcome{});
}

TEST(Open, KeptStickyBitIsTolerated) {
  sandbox::RequireSandbox();
  WriteRoleMap("a * user\n", 01640);
  EXPECT_EQ(Load(), Outcome{});
}

TEST(Open, OtherKindsOfFile) {
  sandbox::RequireSandbox();
  ASSERT_EQ(mkdir(sandbox::kRoleMapPath, 0640), 0);
  EXPECT_EQ(Open(), kBadMode);
  ASSERT_EQ(rmdir(sandbox::kRoleMapPath), 0);
  ASSERT_EQ(mkfifo(sandbox::kRoleMapPath, 0640), 0);
  ASSERT_EQ(chmod(sandbox::kRoleMapPath, 0640), 0);
  EXPECT_EQ(Open(), kBadMode) << "and it does not wait for a writer";
}

TEST(Open, SymbolicLinkIsFollowed) {
  sandbox::RequireSandbox();
  const std::string target = std::string(sandbox::kRoleMapPath) + ".real";
  ASSERT_EQ(symlink(target.c_str(), sandbox::kRoleMapPath), 0);
  EXPECT_EQ(Open(), kNotFound) << "it leads nowhere";
  ASSERT_TRUE(sandbox::WriteFile(target, "a * user\n", 0640));
  EXPECT_EQ(Load(), Outcome{});
}

TEST(Open, LinksThatNeverEndAreNoFile) {
  sandbox::RequireSandbox();
  ASSERT_EQ(symlink(sandbox::kRoleMapPath, sandbox::kRoleMapPath), 0);
  EXPECT_EQ(Open(), kNotFound);
}

TEST(Open, FileWithAWrongModeIsNotOpened) {
  sandbox::RequireSandbox();
  WriteRoleMap("a * user\n", 0644);
  ASSERT_EQ(Open(), kBadMode);
  EXPECT_EQ(GetRecords(), kNotFound) << "there is no stream";
  EXPECT_EQ(OpenDescriptors(), 0);
}

TEST(Open, KeptOpeningTwiceBeforeReadingMakesTheFileEmpty) {
  sandbox::RequireSandbox();
  WriteRoleMap("a * user\n");
  ASSERT_EQ(Open(), Outcome{});
  ASSERT_EQ(Open(), Outcome{}) << "the stream cannot be opened again and counts as open";
  EXPECT_EQ(GetRecords(), kEmpty);
  EXPECT_EQ(Load(), kEmpty) << "for ever";
}

TEST(Open, FileThatMayNotBeReadIsNotFound) {
  EXPECT_EQ(sandbox::RunWithUnreadableRoleMap([] { return Open() == kNotFound ? 0 : 1; }), 0);
}

TEST(Open, FileThatCouldNotBeOpenedIsReadLater) {
  EXPECT_EQ(sandbox::RunWithUnreadableRoleMap([] {
              EXPECT_EQ(Open(), kNotFound);
              EXPECT_EQ(GetRecords(), kEmpty) << "there is a stream, and nothing to read in it";
              // A file that is mounted over the unreadable one takes its place for this process alone.
              const std::string good = std::string(sandbox::kRoleMapPath) + ".good";
              EXPECT_TRUE(sandbox::WriteFile(good, "a h user\n", 0640));
              EXPECT_EQ(unshare(CLONE_NEWNS), 0);
              EXPECT_EQ(mount(good.c_str(), sandbox::kRoleMapPath, nullptr, MS_BIND, nullptr), 0);
              EXPECT_EQ(Load(), Outcome{}) << "the same stream opens the file";
              EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"h", 1}}));
              return 0;
            }),
            0);
}

TEST(GetRecords, WithoutOpenHasNothingToRead) {
  sandbox::RequireSandbox();
  WriteRoleMap("a * user\n");
  EXPECT_EQ(GetRecords(), kNotFound);
}

TEST(GetRecords, CountsEveryLine) {
  sandbox::RequireSandbox();
  WriteRoleMap("# 1\n\n   # 3\n \t\n#\n# 6\nalice * administrator\n\n\tbob\th\tuser  \ncarol * user");
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"alice", L"*", 7}, {L"bob", L"h", 1}, {L"carol", L"*", 1}}));
  EXPECT_EQ(LineNumbers(), (std::vector<unsigned long>{7, 9, 10})) << "the last line needs no newline";
}

TEST(GetRecords, KeepsDuplicates) {
  sandbox::RequireSandbox();
  WriteRoleMap("a h user\na h user\n");
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants().size(), 2u);
}

TEST(GetRecords, FileWithoutEntries) {
  sandbox::RequireSandbox();
  for (const char *text : {"", "\n\n", "# comment\n  \n\t# another", "#"}) {
    sandbox::Process process;
    WriteRoleMap(text);
    ASSERT_TRUE(process.Start([](sandbox::Channel &) { return Load() == kEmpty ? 0 : 1; }));
    EXPECT_EQ(process.Wait(), 0) << text;
  }
}

TEST(GetRecords, FormatErrorsTellTheLine) {
  sandbox::RequireSandbox();
  const struct {
    const char *what;
    const char *text;
    int line;
  } cases[] = {
      {"first line", "carol * operator\n", 1},
      {"after comments and blank lines", "# 1\n\n# 3\ndave *\n", 4},
      {"after good lines", "a * user\nb * user\nc\n", 3},
      {"carriage returns", "a * user\r\nb * user\r\n", 1},
      {"last line without newline", "a * user\nb *", 2},
      {"blank line that ends in a carriage return", "# 1\n\r\n", 2},
      {"missing column", "dave *\n", 1},
      {"blank after a comma", "# 1\nalice, bob * user\n", 2},
  };
  for (const auto &c : cases) {
    sandbox::Process process;
    WriteRoleMap(c.text);
    ASSERT_TRUE(process.Start([&c](sandbox::Channel &) {
      const Outcome expected{FILE_FORMAT_ERROR, static_cast<unsigned long>(c.line)};
      return Load() == expected ? 0 : 1;
    }));
    EXPECT_EQ(process.Wait(), 0) << c.what;
  }
}

TEST(GetRecords, LongLines) {
  sandbox::RequireSandbox();
  std::string names = "first";
  for (int i = 0; i < 100000; ++i) names += ",user" + std::to_string(i);
  WriteRoleMap("# " + std::string(1000000, 'x') + "\n" + names + " h user\n");
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants().size(), 100001u);
  EXPECT_EQ(LineNumbers(), std::vector<unsigned long>{2});
}

TEST(GetRecords, CommentMayEndInACarriageReturn) {
  sandbox::RequireSandbox();
  WriteRoleMap("# 1\r\na * user\n \t# 3\r\n");
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"*", 1}}));
}

TEST(GetRecords, ZeroBytesAreCharacters) {
  sandbox::RequireSandbox();
  for (const char *locale : {"C", "C.UTF-8"}) {
    std::locale::global(std::locale(locale));
    WriteRoleMap(std::string("a\0b * user\nc * user\n", 20));
    ASSERT_EQ(Load(), Outcome{}) << locale;
    EXPECT_EQ(CurrentGrants(), (Grants{{std::wstring(L"a\0b", 3), L"*", 1}, {L"c", L"*", 1}})) << locale;
  }
}

TEST(GetRecords, ListIsOneAndTheSame) {
  sandbox::RequireSandbox();
  WriteRoleMap("a * user\n");
  ASSERT_EQ(Load(), Outcome{});
  const auto *const records = &Reader().GetRecords();
  const QXAuthFileRecord *const first = records->front();
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(&Reader().GetRecords(), records);
  EXPECT_EQ(records->front(), first) << "records that are current are not made anew";
  EXPECT_EQ(&Reader().GetDefaultRecords(), records);
}

TEST(GetRecords, StreamIsClosedAfterAGoodFileOnly) {
  sandbox::RequireSandbox();
  WriteRoleMap("a * user\n");
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(OpenDescriptors(), 0);
  WriteRoleMap("bad\n");
  ASSERT_EQ(Load(), (Outcome{FILE_FORMAT_ERROR, 1}));
  for (int times = 0; times < 3; ++times) {
    EXPECT_EQ(OpenDescriptors(), 1) << times;
    EXPECT_EQ(Load(), kEmpty) << times;
  }
}

TEST(GetRecords, RecordsBeforeAFailingLineStayUntilTheListIsReplaced) {
  sandbox::RequireSandbox();
  const std::deque<QXAuthFileRecord *> &records = Reader().GetDefaultRecords();
  WriteRoleMap("a * user\nb,c * user\nbad\nd * user\n");
  ASSERT_EQ(Load(), (Outcome{FILE_FORMAT_ERROR, 3}));
  EXPECT_EQ(GrantsOf(records), (Grants{{L"a", L"*", 1}, {L"b", L"*", 1}, {L"c", L"*", 1}}));
  ASSERT_EQ(Load(), kEmpty);
  EXPECT_TRUE(records.empty());
}

TEST(GetRecords, DefaultsReplaceTheRecordsBeforeAFailingLine) {
  sandbox::RequireSandbox();
  const std::deque<QXAuthFileRecord *> &records = Reader().GetDefaultRecords();
  WriteRoleMap("a * user\nbad\n");
  ASSERT_EQ(Load(), (Outcome{FILE_FORMAT_ERROR, 2}));
  Reader().GetDefaultRecords();
  EXPECT_EQ(GrantsOf(records), kDefaults);
  ASSERT_EQ(Load(), kEmpty);
  EXPECT_TRUE(records.empty()) << "the defaults served one query";
}

TEST(GetRecords, CharactersComeByTheGlobalLocale) {
  sandbox::RequireSandbox();
  std::locale::global(std::locale("C.UTF-8"));
  WriteRoleMap("d\xC3\xA9j\xC3\xA0 H user\n");
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"d\u00e9j\u00e0", L"h", 1}}));
}

TEST(GetRecords, KeptBytesThatAreNotValidEndTheReading) {
  sandbox::RequireSandbox();
  std::locale::global(std::locale("C.UTF-8"));
  WriteRoleMap("a * user\n\xFF * administrator\nb * user\n");
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"*", 1}}));
  WriteRoleMap("c * user\n");
  ASSERT_EQ(Load(), Outcome{}) << "a changed file is read again";
  EXPECT_EQ(CurrentGrants(), (Grants{{L"c", L"*", 1}}));
}

TEST(GetRecords, NothingBehindAnInvalidByteIsRead) {
  sandbox::RequireSandbox();
  // Longer than the stream's buffer: the bad byte and the end of the file are then not met at the same time.
  const std::string padding = "#" + std::string(50000, 'x') + '\n';
  const struct {
    const char *what;
    const char *locale;
    std::string text;
    Outcome outcome;
    Grants grants;
  } cases[] = {
      {"start of a line", "C.UTF-8", "a * user\n\xFF\nc * user\n", {}, {{L"a", L"*", 1}}},
      {"comment", "C.UTF-8", "a * user\n# \xFF\nc * user\n", {}, {{L"a", L"*", 1}}},
      {"first line", "C.UTF-8", "\xFF * user\nc * user\n", kEmpty, {}},
      {"far from the ends", "C.UTF-8", padding + "a * user\n\xFF\nc * user\n" + padding, {}, {{L"a", L"*", 1}}},
      {"character cut by the end of the file", "C.UTF-8", "a * user\n# \xC3", {}, {{L"a", L"*", 1}}},
      {"the plain locale knows no such bytes", "C", "a * user\n\xC3\xA9 * user\nc * user\n", {}, {{L"a", L"*", 1}}},
      {"comment in the plain locale", "C", "# d\xC3\xA9\na * user\n", kEmpty, {}},
  };
  for (const auto &c : cases) {
    sandbox::Process process;
    WriteRoleMap(c.text);
    ASSERT_TRUE(process.Start([&c](sandbox::Channel &) {
      std::locale::global(std::locale(c.locale));
      EXPECT_EQ(Load(), c.outcome) << c.what;
      if (c.outcome == Outcome{}) {
        EXPECT_EQ(CurrentGrants(), c.grants) << c.what;
      }
      return 0;
    }));
    EXPECT_EQ(process.Wait(), 0) << c.what;
  }
}

TEST(GetRecords, FileIsReadAgainOnlyWhenItsTimeChanges) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "a * user\n", 0640, 5000));
  ASSERT_EQ(Load(), Outcome{});
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "b * user\n", 0640, 5000));
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"*", 1}})) << "same second";
  ASSERT_TRUE(sandbox::SetModificationTime(sandbox::kRoleMapPath, 4000));
  EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"*", 1}})) << "GetRecords alone does not look";
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"b", L"*", 1}})) << "an older time is a change too";
}

TEST(GetRecords, FileThatVanishesAndReturnsUnchangedIsStillCurrent) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "a * user\n", 0640, 5000));
  ASSERT_EQ(Load(), Outcome{});
  ASSERT_EQ(unlink(sandbox::kRoleMapPath), 0);
  ASSERT_EQ(Open(), kNotFound);
  EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"*", 1}})) << "no new time was seen";
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "b * user\n", 0640, 5000));
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"*", 1}}));
  ASSERT_TRUE(sandbox::SetModificationTime(sandbox::kRoleMapPath, 5001));
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"b", L"*", 1}}));
}

TEST(GetRecords, FileOfTimeZeroIsReadTheFirstTime) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "a * user\n", 0640, 0));
  ASSERT_EQ(Load(), Outcome{}) << "no change is seen, but there are no records yet";
  EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"*", 1}}));
}

TEST(GetRecords, AfterAFormatErrorKindAndModeAreStillChecked) {
  sandbox::RequireSandbox();
  WriteRoleMap("bad\n");
  ASSERT_EQ(Load(), (Outcome{FILE_FORMAT_ERROR, 1}));
  ASSERT_EQ(chmod(sandbox::kRoleMapPath, 0600), 0);
  EXPECT_EQ(Load(), kBadMode);
  ASSERT_EQ(unlink(sandbox::kRoleMapPath), 0);
  EXPECT_EQ(Load(), kNotFound);
  WriteRoleMap("a * user\n");
  EXPECT_EQ(Load(), kEmpty);
}

TEST(GetRecords, KeptAfterAFormatErrorTheFileIsEmptyForEver) {
  sandbox::RequireSandbox();
  WriteRoleMap("a * user\nbad\n");
  ASSERT_EQ(Load(), (Outcome{FILE_FORMAT_ERROR, 2}));
  EXPECT_EQ(Load(), kEmpty) << "the stream is still open and cannot be opened again";
  WriteRoleMap("a * user\n");
  EXPECT_EQ(Load(), kEmpty) << "also when the file is corrected";
}

TEST(GetRecords, AfterAFormatErrorTheRestMayBeReadWithoutOpening) {
  sandbox::RequireSandbox();
  WriteRoleMap("a * user\nbad\nb * user\n");
  ASSERT_EQ(Load(), (Outcome{FILE_FORMAT_ERROR, 2}));
  ASSERT_EQ(GetRecords(), Outcome{}) << "the stream stands after the failing line";
  EXPECT_EQ(CurrentGrants(), (Grants{{L"b", L"*", 1}}));
  EXPECT_EQ(LineNumbers(), std::vector<unsigned long>{1});
}

TEST(GetRecords, KeptAFileFoundEmptyStaysEmptyWhenFilled) {
  sandbox::RequireSandbox();
  WriteRoleMap("# nothing\n");
  ASSERT_EQ(Load(), kEmpty);
  WriteRoleMap("a * user\n");
  EXPECT_EQ(Load(), kEmpty);
}

TEST(GetDefaultRecords, AreThree) {
  sandbox::RequireSandbox();
  EXPECT_EQ(GrantsOf(Reader().GetDefaultRecords()), kDefaults);
  const std::deque<QXAuthFileRecord *> &records = Reader().GetDefaultRecords();
  EXPECT_EQ(GrantsOf(records), kDefaults) << "not six";
  for (const QXAuthFileRecord *record : records) EXPECT_EQ(record->GetLineNumber(), 0u);
}

TEST(GetDefaultRecords, ServeOnlyUntilTheNextReadAfterAFailedOne) {
  sandbox::RequireSandbox();
  ASSERT_EQ(Load(), kNotFound);
  Reader().GetDefaultRecords();
  WriteRoleMap("a * user\n");
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"*", 1}}));
}

TEST(GetDefaultRecords, KeptTheyStayWhileTheFileWasCurrent) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "a * user\n", 0640, 5000));
  ASSERT_EQ(Load(), Outcome{});
  ASSERT_EQ(chmod(sandbox::kRoleMapPath, 0644), 0);
  ASSERT_EQ(Open(), kBadMode);
  Reader().GetDefaultRecords();
  ASSERT_EQ(chmod(sandbox::kRoleMapPath, 0640), 0);
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), kDefaults) << "a change of mode is no change of time";
  ASSERT_TRUE(sandbox::SetModificationTime(sandbox::kRoleMapPath, 5001));
  ASSERT_EQ(Load(), Outcome{});
  EXPECT_EQ(CurrentGrants(), (Grants{{L"a", L"*", 1}}));
}

TEST(QXAuthFileReader, CallsOfSeveralThreadsExcludeEachOther) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "a,b,c * user\n", 0640, 5000));
  ASSERT_EQ(Load(), Outcome{});
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < 2000; ++i) {
        // A thread may find the stream opened by another one, so every outcome of a load is a good one.
        if (thread == 0) {
          Reader().GetDefaultRecords();
        } else {
          Load();
        }
      }
    });
  }
  for (int i = 1; i <= 200; ++i) sandbox::SetModificationTime(sandbox::kRoleMapPath, 5000 + i);
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(GrantsOf(Reader().GetDefaultRecords()), kDefaults);
}
