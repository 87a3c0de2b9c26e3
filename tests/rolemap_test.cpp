// The role-map file: its check, its lines, its errors, and what the reader is like after each.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <locale>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
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

// What one line of the file gives, read by a process of its own.
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
      {"commas alone", L", , user", good, {{L"", L"", 1}, {L"", L"", 1}, {L"", L"", 1}, {L"", L"", 1}}},
      {"blank after a comma shifts the columns", L"alice, bob * user", bad, {}},
      {"fourth column", L"bob * user extra", good, {{L"bob", L"*", 1}}},
      {"tabs and runs of blanks", L"bob\t\t*  \t user", good, {{L"bob", L"*", 1}}},
      {"role in capitals", L"bob * ADMINISTRATOR", good, {{L"bob", L"*", 7}}},
      {"role with more letters", L"bob * users", bad, {}},
      {"role with fewer letters", L"bob * use", bad, {}},
      {"carriage return", L"bob * user\r", bad, {}},
      {"one column", L"bob", bad, {}},
      {"empty line", L"", bad, {}},
      {"blanks alone", L"  \t", bad, {}},
      {"blanks around the line", L" \tbob * user\t ", good, {{L"bob", L"*", 1}}},
      {"two columns and a blank", L"bob * ", bad, {}},
      {"same name twice", L"a,a * user", good, {{L"a", L"*", 1}, {L"a", L"*", 1}}},
      {"other characters are kept", L"d\u00e9j\u00e0 \u00c9 user", good, {{L"d\u00e9j\u00e0", L"\u00c9", 1}}},
      {"vertical tab is no blank", L"a\vb * user", good, {{L"a\vb", L"*", 1}}},
  };
  for (const auto &c : cases) {
    const LineResult result = ResultOfLine(c.line);
    EXPECT_EQ(result.outcome, c.outcome) << c.what;
    EXPECT_EQ(result.grants, c.grants) << c.what;
  }
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

TEST(Open, FileThatMayNotBeReadIsNotFound) {
  EXPECT_EQ(sandbox::RunWithUnreadableRoleMap([] { return Open() == kNotFound ? 0 : 1; }), 0);
}

TEST(Open, FileThatAppearsLaterIsRead) {
  EXPECT_EQ(sandbox::RunWithUnreadableRoleMap([] {
              if (Open() != kNotFound) return 1;  // a stream was made and could not open the file
              if (unlink(sandbox::kRoleMapPath) != 0) return 2;
              if (!sandbox::WriteFile(sandbox::kRoleMapPath, "a h user\n", 0640)) return 3;
              if (Load() != Outcome{}) return 4;
              return CurrentGrants() == Grants{{L"a", L"h", 1}} ? 0 : 5;
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
