// The INI store between processes: shared files, a held lock, killed writers, a full disk, system calls.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <new>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "guarded_buffer.h"
#include "program.h"
#include "sandbox.h"
#include "shared_file.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"

namespace {

using sandbox::Channel;
using sandbox::Exists;
using sandbox::Files;
using sandbox::FilesIn;
using sandbox::FileState;
using sandbox::FillDisk;
using sandbox::GuardedBuffer;
using sandbox::kPage;
using sandbox::LockHolder;
using sandbox::LockIsFree;
using sandbox::ModeOf;
using sandbox::Mount;
using sandbox::NewSharedNumber;
using sandbox::Process;
using sandbox::TemporaryDirectory;

constexpr const char *kTemporaryName = "kcsini64.tmp";
constexpr mode_t kIniMode = S_IFREG | 01664;

s32 Write(const std::string &path, const std::string &section, const std::string &key, const std::string &value,
          booln canBlock = 1) {
  return KCSWriteINIPathFileValue(section.c_str(), key.c_str(), ZEBCS_INI_ASTRING, value.c_str(),
                                  static_cast<u32>(value.size() + 1), path.c_str(), canBlock);
}

s32 Remove(const std::string &path, const std::string &section, const std::string &key) {
  return KCSWriteINIPathFileValue(section.c_str(), key.c_str(), ZEBCS_INI_ASTRING, nullptr, 0, path.c_str(), 1);
}

// The value, or the status of a failure.
std::string Read(const std::string &path, const std::string &section, const std::string &key) {
  astring value[8193];
  u32 size = sizeof value;
  const s32 status = KCSReadINIPathFileValue(section.c_str(), key.c_str(), ZEBCS_INI_ASTRING, value, &size, nullptr, 0,
                                             path.c_str(), 1);
  return status == 0 ? value : "status " + std::to_string(status);
}

constexpr booln kSingleAttempts[] = {0, 2, -1};  // any value but 1

std::vector<std::string> LinesOf(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// Takes each of these lines out once. What is left keeps its order.
std::vector<std::string> WithoutLines(std::vector<std::string> lines, const std::vector<std::string> &taken) {
  for (const std::string &line : taken) {
    const auto found = std::find(lines.begin(), lines.end(), line);
    EXPECT_NE(found, lines.end()) << "lost: " << line;
    if (found != lines.end()) lines.erase(found);
  }
  return lines;
}

}  // namespace

// --- Shared files ---------------------------------------------------------------------------------------------------

namespace {

constexpr int kWriters = 4;

std::string Name(const char *prefix, int number) { return prefix + std::to_string(number); }

}  // namespace

TEST(SharedFile, ManyWritersLoseNothing) {
  constexpr int kRounds = 400;
  constexpr int kKeys = 5;
  const std::string original =
      "; a comment\n"
      "before = every section\n"
      "[shared]\n"
      "first=1\n"
      "a word\n"
      "# another comment\n"
      "\n"
      "  [ other ] tail\n"
      "\tkey\t=\tvalue = with more = signs\r\n"
      "first=1\n"
      "first=2\n"
      "[last]\n"
      "end=1\n";
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, original));
  std::deque<Process> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    ASSERT_TRUE(writers.emplace_back().Start([&path, writer](Channel &channel) {
      const std::string section = Name("own", writer);
      EXPECT_EQ(channel.Get(), "go");
      for (int round = 0; round < kRounds; ++round) {
        const std::string number = std::to_string(round);
        EXPECT_EQ(Write(path, "shared", Name("writer", writer), number), 0);
        EXPECT_EQ(Write(path, section, Name("key", round % kKeys), number), 0);
        EXPECT_EQ(Read(path, "shared", Name("writer", writer)), number);
        EXPECT_EQ(Read(path, section, Name("key", round % kKeys)), number);
      }
      return 0;
    }));
  }
  for (Process &writer : writers) writer.Send("go");
  for (Process &writer : writers) EXPECT_EQ(writer.Wait(), 0);

  std::vector<std::string> written;
  for (int writer = 0; writer < kWriters; ++writer) {
    EXPECT_EQ(Read(path, "shared", Name("writer", writer)), std::to_string(kRounds - 1));
    written.push_back(Name("writer", writer) + '=' + std::to_string(kRounds - 1));
    written.push_back('[' + Name("own", writer) + ']');
    for (int key = 0; key < kKeys; ++key) {
      const std::string last = std::to_string(kRounds - kKeys + key);
      EXPECT_EQ(Read(path, Name("own", writer), Name("key", key)), last);
      written.push_back(Name("key", key) + '=' + last);
    }
  }
  const Files files = FilesIn(directory.path());
  ASSERT_EQ(files.size(), 1u) << "the temporary file is gone";
  EXPECT_EQ(WithoutLines(LinesOf(files.at("a.ini")), written), LinesOf(original));
  EXPECT_EQ(ModeOf(path), kIniMode);
}

TEST(SharedFile, ProcessesThatCreateItTogetherAllGetIn) {
  constexpr int kRounds = 40;
  const TemporaryDirectory directory;
  std::deque<Process> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    ASSERT_TRUE(writers.emplace_back().Start([writer](Channel &channel) {
      for (std::string path = channel.Get(); path != "end"; path = channel.Get()) {
        channel.Put(std::to_string(Write(path, Name("section", writer), "key", Name("value", writer))));
      }
      return 0;
    }));
  }
  for (int round = 0; round < kRounds; ++round) {
    // The directory, too, is made by whoever comes first.
    const std::string folder = directory.Path(Name("folder", round));
    for (Process &writer : writers) writer.Send(folder + "/a.ini");
    for (Process &writer : writers) ASSERT_EQ(writer.Receive(), "0");
    std::vector<std::string> expected;
    for (int writer = 0; writer < kWriters; ++writer) {
      expected.push_back('[' + Name("section", writer) + ']');
      expected.push_back(Name("key=value", writer));
    }
    const Files files = FilesIn(folder);
    ASSERT_EQ(files.size(), 1u);
    ASSERT_EQ(WithoutLines(LinesOf(files.at("a.ini")), expected), std::vector<std::string>());
    ASSERT_EQ(ModeOf(folder + "/a.ini"), kIniMode);
  }
  for (Process &writer : writers) writer.Send("end");
  for (Process &writer : writers) EXPECT_EQ(writer.Wait(), 0);
}

TEST(SharedFile, FilesOfOneDirectoryDoNotMixThoughTheirTemporaryNameIsOne) {
  constexpr int kRounds = 300;
  const TemporaryDirectory directory;
  const auto content = [](int writer, int round) {
    const std::string line = Name("this is file ", writer) + '\n';
    std::string text = "[s]\nkey=" + std::to_string(round) + '\n';
    for (int i = 0; i < 200; ++i) text += line;
    return text;
  };
  std::deque<Process> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    const std::string path = directory.Path(Name("file", writer));
    ASSERT_TRUE(sandbox::WriteFile(path, content(writer, 0)));
    ASSERT_TRUE(writers.emplace_back().Start([path, writer, &content](Channel &channel) {
      EXPECT_EQ(channel.Get(), "go");
      for (int round = 1; round <= kRounds; ++round) {
        EXPECT_EQ(Write(path, "s", "key", std::to_string(round)), 0);
        EXPECT_EQ(sandbox::ReadFile(path), content(writer, round));
      }
      return 0;
    }));
  }
  for (Process &writer : writers) writer.Send("go");
  for (Process &writer : writers) EXPECT_EQ(writer.Wait(), 0);
  EXPECT_EQ(FilesIn(directory.path()).size(), size_t{kWriters});
}

TEST(SharedFile, ReadersNeverSeeHalfARewrite) {
  constexpr int kRounds = 500;
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=0\n" + std::string(20000, '#') + "\n[t]\nend=whole\n"));
  Process writer;
  ASSERT_TRUE(writer.Start([&path](Channel &channel) {
    for (int round = 1; round <= kRounds; ++round) EXPECT_EQ(Write(path, "s", "key", std::to_string(round)), 0);
    channel.Put("done");
    return 0;
  }));
  int last = 0;
  while (last < kRounds) {
    const std::string value = Read(path, "s", "key");
    ASSERT_TRUE(!value.empty() && value.find_first_not_of("0123456789") == std::string::npos) << value;
    ASSERT_GE(std::stoi(value), last) << "values come in the order in which they were written";
    last = std::stoi(value);
    ASSERT_EQ(Read(path, "t", "end"), "whole");
  }
  EXPECT_EQ(writer.Receive(), "done");
  EXPECT_EQ(writer.Wait(), 0);
}

// --- The lock -------------------------------------------------------------------------------------------------------

TEST(HeldLock, SingleAttemptToReadFailsAndTouchesNothing) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=7\n"));
  const FileState before(path);
  const GuardedBuffer value(16);
  const std::string untouched(16, static_cast<char>(GuardedBuffer::kFill));
  LockHolder holder;
  ASSERT_TRUE(holder);
  for (const booln canBlock : kSingleAttempts) {
    for (const char *section : {"s", static_cast<const char *>(nullptr)}) {
      for (const char *key : {"key", static_cast<const char *>(nullptr)}) {
        u32 size = 16;
        EXPECT_EQ(KCSReadINIPathFileValue(section, key, ZEBCS_INI_ASTRING, value.data<astring>(), &size, "default", 8,
                                          path.c_str(), canBlock),
                  SM_STATUS_LOCK_TIMEOUT);
        EXPECT_EQ(size, 16u) << "a text has no default before the file is open";
        EXPECT_EQ(std::string(value.data<char>(), 16), untouched);
      }
    }
  }
  EXPECT_EQ(FileState(path), before);
  holder.Release();
  u32 size = 16;
  EXPECT_EQ(ReadINIFileValue_astring("s", "key", value.data<astring>(), &size, nullptr, 0, path.c_str(), 0), 0);
  EXPECT_STREQ(value.data<char>(), "7");
}

TEST(HeldLock, TypedReadersGiveTheirDefaultWithTheStatus) {
  constexpr struct {
    u32 type;
    u32 size;
  } kTypes[] = {{ZEBCS_INI_BINARY, 6}, {ZEBCS_INI_BOOLN, 2}, {ZEBCS_INI_U32, 4}, {ZEBCS_INI_S32, 4},
                {ZEBCS_INI_U64, 8},    {ZEBCS_INI_S64, 8},   {ZEBCS_INI_D64, 8}};
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  const std::string preset("\1\2\3\4\5\6\7\10", 8);
  LockHolder holder;
  ASSERT_TRUE(holder);
  for (const auto &type : kTypes) {
    const GuardedBuffer preferred(type.size);
    std::memcpy(preferred.data<char>(), preset.data(), type.size);
    GuardedBuffer value(type.size);
    u32 size = type.size;
    EXPECT_EQ(KCSReadINIPathFileValue("s", "key", type.type, value.data<void>(), &size, preferred.data<void>(),
                                      type.size, path.c_str(), 0),
              SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(size, type.size) << type.type;
    EXPECT_EQ(std::string(value.data<char>(), type.size), preset.substr(0, type.size)) << type.type;

    value.Fill(GuardedBuffer::kFill);
    EXPECT_EQ(KCSReadINIPathFileValue("s", "key", type.type, value.data<void>(), &size, nullptr, 0, path.c_str(), 0),
              SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(size, 0u) << type.type;
    EXPECT_EQ(std::string(value.data<char>(), type.size),
              std::string(type.size, static_cast<char>(GuardedBuffer::kFill)));
  }
  holder.Release();
}

TEST(HeldLock, SingleAttemptToWriteFailsAndTouchesNothing) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=7\n", 0640));
  ASSERT_TRUE(sandbox::WriteFile(directory.Path(kTemporaryName), "left by somebody"));
  const FileState before(path);
  const Files files = FilesIn(directory.path());
  LockHolder holder;
  ASSERT_TRUE(holder);
  for (const booln canBlock : kSingleAttempts) {
    EXPECT_EQ(Write(path, "s", "key", "8", canBlock), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(Write(path, "new", "key", "8", canBlock), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(Write(directory.Path("new.ini"), "s", "key", "8", canBlock), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(WriteINIFileValue_astring("s", "key", nullptr, 0, path.c_str(), canBlock), SM_STATUS_LOCK_TIMEOUT);
    const u32 number = 8;
    EXPECT_EQ(WriteINIFileValue_u32("s", "key", &number, 4, path.c_str(), canBlock), SM_STATUS_LOCK_TIMEOUT);
    const u8 bytes[] = {8};
    EXPECT_EQ(WriteINIFileValue_binary("s", "key", bytes, 1, path.c_str(), canBlock), SM_STATUS_LOCK_TIMEOUT);
  }
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(FilesIn(directory.path()), files);
  holder.Release();
  EXPECT_EQ(Write(path, "s", "key", "8", 0), 0);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.ini", "[s]\nkey=8\n"}}));
}

TEST(HeldLock, KeptTheDirectoryIsMadeBeforeTheLockIsTried) {
  const TemporaryDirectory directory;
  LockHolder holder;
  ASSERT_TRUE(holder);
  EXPECT_EQ(Write(directory.Path("new/a.ini"), "s", "key", "1", 0), SM_STATUS_LOCK_TIMEOUT);
  EXPECT_EQ(ModeOf(directory.Path("new")), static_cast<mode_t>(S_IFDIR | 0755));
  EXPECT_EQ(FilesIn(directory.Path("new")), Files());
  EXPECT_EQ(Write(directory.Path("missing/new/a.ini"), "s", "key", "1", 0), -1);
  holder.Release();
}

TEST(HeldLock, ArgumentsAreRefusedWithoutWaitingForIt) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  astring value[4];
  u32 size = sizeof value;
  LockHolder holder;
  ASSERT_TRUE(holder);
  EXPECT_EQ(ReadINIFileValue_astring("s", "k", nullptr, &size, nullptr, 0, path.c_str(), 1), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(ReadINIFileValue_astring("s", "k", value, &size, nullptr, 0, nullptr, 1), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSReadINIPathFileValue("s", "k", 10, value, &size, nullptr, 0, path.c_str(), 1), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(Write(path, std::string(256, 's'), "k", "v"), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(WriteINIFileValue_astring("s", "k", "value", 5, path.c_str(), 1), SM_STATUS_BAD_SIZE);
  EXPECT_EQ(Write(directory.Path("missing/new/a.ini"), "s", "k", "v"), -1);
  holder.Release();
  EXPECT_EQ(FilesIn(directory.path()), Files());
}

TEST(HeldLock, BlockingCallsWaitUntilItIsReleased) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=7\n"));
  const FileState before(path);
  LockHolder holder;
  ASSERT_TRUE(holder);
  std::atomic<int> &finished = NewSharedNumber();
  const auto call = [&finished](const std::function<void()> &work) {
    return [&finished, work](Channel &channel) {
      channel.Put("waiting");
      work();
      ++finished;
      return 0;
    };
  };
  Process writer;
  Process reader;
  ASSERT_TRUE(writer.Start(call([&] { EXPECT_EQ(Write(path, "s", "other", "8"), 0); })));
  ASSERT_TRUE(reader.Start(call([&] { EXPECT_EQ(Read(path, "s", "key"), "7"); })));
  ASSERT_EQ(writer.Receive(), "waiting");
  ASSERT_EQ(reader.Receive(), "waiting");
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // a call that did not wait would often be through by now
  EXPECT_EQ(finished, 0);
  EXPECT_EQ(FileState(path), before);
  holder.Release();
  EXPECT_EQ(writer.Wait(), 0);
  EXPECT_EQ(reader.Wait(), 0);
  EXPECT_EQ(finished, 2);
  EXPECT_EQ(sandbox::ReadFile(path), "[s]\nkey=7\nother=8\n");
}

TEST(HeldLock, EveryWayOutOfACallReleasesIt) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  const std::string malformed = directory.Path("malformed.ini");
  const std::string missing = directory.Path("missing.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1,400\nflag=maybe\n[empty]\n"));
  ASSERT_TRUE(sandbox::WriteFile(malformed, "[s\n"));
  const std::string busy = directory.Path("busy.ini");
  ASSERT_TRUE(sandbox::WriteFile(busy, "[s]\nkey=1\n"));
  Mount mount;
  ASSERT_TRUE(mount.OverItself(busy));
  astring text[64];
  u32 size = 0;
  const auto list = [&](const char *section, const char *key, u32 room) {
    size = room;
    return ReadINIFileValue_astring(section, key, text, &size, nullptr, 0, path.c_str(), 1);
  };
  const struct {
    const char *what;
    std::function<s32()> call;
    s32 status;
  } cases[] = {
      {"a value", [&] { return list("s", "flag", 64); }, 0},
      {"a value without room", [&] { return list("s", "flag", 2); }, SM_STATUS_BUFFER_TOO_SMALL},
      {"a missing key", [&] { return list("s", "none", 64); }, SM_STATUS_KEY_NOT_FOUND},
      {"a missing section", [&] { return list("none", "key", 64); }, SM_STATUS_SECTION_NOT_FOUND},
      {"the sections", [&] { return list(nullptr, nullptr, 64); }, 0},
      {"the sections without room", [&] { return list(nullptr, nullptr, 1); }, SM_STATUS_BAD_PARAMETER},
      {"the keys", [&] { return list("s", nullptr, 64); }, 0},
      {"the keys without room", [&] { return list("s", nullptr, 1); }, SM_STATUS_BAD_PARAMETER},
      {"no keys", [&] { return list("empty", nullptr, 64); }, SM_STATUS_KEY_NOT_FOUND},
      {"a missing file",
       [&] {
         size = 64;
         return ReadINIFileValue_astring("s", "key", text, &size, nullptr, 0, missing.c_str(), 1);
       },
       SM_STATUS_NOT_FOUND},
      {"a malformed file",
       [&] {
         size = 64;
         return ReadINIFileValue_astring("s", "key", text, &size, nullptr, 0, malformed.c_str(), 1);
       },
       SM_STATUS_PARSE_ERROR},
      {"a byte above 255",
       [&] {
         size = 8;
         u8 bytes[8];
         return ReadINIFileValue_binary("s", "key", bytes, &size, nullptr, 0, path.c_str(), 1);
       },
       SM_STATUS_BAD_SIZE},
      {"no flag",
       [&] {
         size = 2;
         booln flag = 0;
         return ReadINIFileValue_booln("s", "flag", &flag, &size, nullptr, 0, path.c_str(), 1);
       },
       SM_STATUS_BAD_SIZE},
      {"an update", [&] { return Write(path, "s", "key", "2"); }, 0},
      {"a new section", [&] { return Write(path, "t", "key", "2"); }, 0},
      {"a new file", [&] { return Write(directory.Path("new.ini"), "t", "key", "2"); }, 0},
      {"a removal", [&] { return Remove(path, "s", "flag"); }, 0},
      {"a removal from a missing file", [&] { return Remove(missing, "s", "flag"); }, SM_STATUS_BAD_SIZE},
      {"a removal from a missing section", [&] { return Remove(path, "none", "flag"); }, SM_STATUS_BAD_SIZE},
      {"an update of a malformed file", [&] { return Write(malformed, "s", "key", "2"); }, SM_STATUS_PARSE_ERROR},
      {"a file that cannot be deleted", [&] { return Write(busy, "s", "key", "2"); }, SM_STATUS_DELETE_FAILED},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.call(), c.status) << c.what;
    EXPECT_TRUE(LockIsFree()) << c.what;
  }
}

// --- Killed writers -------------------------------------------------------------------------------------------------

namespace {

// A file of some 60000 bytes whose length changes with its number.
std::string NumberedValue(int number) {
  return std::to_string(number) + std::string(static_cast<size_t>(number) % 50, 'x');
}

std::string NumberedFile(int number) {
  static const std::string before = [] {
    std::string text = "[first]\nkey=1\n";
    for (int i = 0; i < 1000; ++i) text += Name("a line of thirty characters ", 10 + i % 10) + '\n';
    return text + "[s]\nnumber=";
  }();
  static const std::string after = [] {
    std::string text = "\n";
    for (int i = 0; i < 1000; ++i) text += Name("key", i) + "=value\n";
    return text + "[last]\nkey=1\n";
  }();
  return before + NumberedValue(number) + after;
}

}  // namespace

TEST(KilledWriter, LeavesTheOldFileOrTheNewOne) {
  constexpr int kKills = 150;
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  std::atomic<int> &number = NewSharedNumber();
  std::mt19937 random(4);
  for (int kill = 0; kill < kKills; ++kill) {
    ASSERT_TRUE(sandbox::WriteFile(path, NumberedFile(0)));
    number = 0;
    Process writer;
    ASSERT_TRUE(writer.Start([&](Channel &) {
      for (int n = 1;; ++n) {
        number = n;
        if (Write(path, "s", "number", NumberedValue(n)) != 0) return 1;
      }
    }));
    while (number == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
    writer.Kill();
    ASSERT_EQ(writer.Wait(), 128 + SIGKILL);
    const int last = number;
    if (Exists(path)) {
      const std::string content = sandbox::ReadFile(path);
      ASSERT_TRUE(content == NumberedFile(last - 1) || content == NumberedFile(last)) << kill << ' ' << last;
    } else {
      ASSERT_EQ(sandbox::ReadFile(directory.Path(kTemporaryName)), NumberedFile(last)) << kill;
      ASSERT_TRUE(sandbox::WriteFile(path, NumberedFile(last)));
    }
    // The lock died with its owner, and whatever lies under the temporary name is in nobody's way.
    ASSERT_EQ(Write(path, "s", "number", "0", 0), 0);
    ASSERT_EQ(FilesIn(directory.path()), (Files{{"a.ini", NumberedFile(0)}}));
  }
}

TEST(KilledWriter, AddsWholeSectionsOnly) {
  constexpr int kKills = 100;
  constexpr int kSections = 30;
  const auto section = [](int i) {
    return '[' + Name("section", 100 + i) + "]\nkey=" + std::string(80, static_cast<char>('a' + i % 26)) + '\n';
  };
  const std::string original = "[first]\nkey=1\n";
  ASSERT_LT(original.size() + kSections * section(0).size(), 4096u) << "a write within a page is not torn";
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  std::mt19937 random(5);
  for (int kill = 0; kill < kKills; ++kill) {
    ASSERT_TRUE(sandbox::WriteFile(path, original));
    Process writer;
    ASSERT_TRUE(writer.Start([&](Channel &channel) {
      channel.Put("go");
      for (int i = 0; i < kSections; ++i) {
        EXPECT_EQ(Write(path, Name("section", 100 + i), "key", std::string(80, static_cast<char>('a' + i % 26))), 0);
      }
      return channel.Get() == "end" ? 0 : 1;
    }));
    ASSERT_EQ(writer.Receive(), "go");
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
    writer.Kill();
    ASSERT_EQ(writer.Wait(), 128 + SIGKILL);
    std::string expected = original;
    const std::string content = sandbox::ReadFile(path);
    for (int i = 0; i < kSections && expected.size() < content.size(); ++i) expected += section(i);
    ASSERT_EQ(content, expected);
    ASSERT_EQ(FileLock(0), 1);
    FileUnlock();
  }
}

// --- System calls ---------------------------------------------------------------------------------------------------

namespace {

// A call's name with the file that it is about, as in "openat a.ini". What tells about an open file has two names.
std::string Abridged(const std::string &line) {
  std::string text = line.substr(0, line.find('('));
  if (text == "newfstatat" && line.find(", \"\", ") != std::string::npos) text = "fstat";
  const size_t path = line.find("\"/");
  if (path != std::string::npos) {
    const size_t end = line.find('"', path + 1);
    const size_t slash = line.rfind('/', end);
    text += ' ' + line.substr(slash + 1, end - slash - 1);
  }
  return text;
}

std::vector<std::string> AbridgedCalls(const std::vector<std::string> &arguments) {
  std::vector<std::string> calls{ZEBCS_INI_PROBE};
  calls.insert(calls.end(), arguments.begin(), arguments.end());
  calls = SystemCallsBetweenMarks(ZEBCS_STRACE, calls);
  for (std::string &call : calls) call = Abridged(call);
  return calls;
}

using Calls = std::vector<std::string>;

// The counts of what a rewrite of a large file calls: names with their numbers.
std::map<std::string, size_t> Counted(const Calls &calls) {
  std::map<std::string, size_t> counts;
  for (const std::string &call : calls) ++counts[call];
  return counts;
}

std::string LargeFile() {
  std::string text = "[s]\nfirst=1\n";
  while (text.size() < 3000000) text += Name("key", static_cast<int>(text.size())) + "=some value\n";
  return text + "[end]\nlast=2\n";
}

}  // namespace

TEST(SystemCalls, SmallReadLocksOpensReadsClosesAndUnlocks) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "; comment\n[s]\nkey=1\nother=2\n[t]\nkey=3\n"));
  const Calls expected{"fcntl", "openat a.ini", "read", "close", "fcntl"};
  EXPECT_EQ(AbridgedCalls({"read", path, "s", "key"}), expected);
  EXPECT_EQ(AbridgedCalls({"read", path, "t", "key"}), expected);
  EXPECT_EQ(AbridgedCalls({"read", path, "s", "none"}), expected) << "the next header ends the search";
  const Calls withEnd{"fcntl", "openat a.ini", "read", "read", "close", "fcntl"};
  EXPECT_EQ(AbridgedCalls({"read", path, "t", "none"}), withEnd) << "one more finds the end";
  EXPECT_EQ(AbridgedCalls({"read", path, "none", "key"}), withEnd);
  EXPECT_EQ(AbridgedCalls({"read", directory.Path("missing.ini"), "s", "key"}),
            (Calls{"fcntl", "openat missing.ini", "fcntl"}));
}

TEST(SystemCalls, LockIsTakenForWritingAndDroppedAtTheEnd) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  const Calls calls = SystemCallsBetweenMarks(ZEBCS_STRACE, {ZEBCS_INI_PROBE, "read", path, "s", "key"});
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_NE(calls.front().find("F_WRLCK"), std::string::npos) << calls.front();
  EXPECT_NE(calls.back().find("F_UNLCK"), std::string::npos) << calls.back();
  EXPECT_NE(calls[1].find("O_RDONLY"), std::string::npos) << calls[1];
  EXPECT_NE(calls[1].find("O_CLOEXEC"), std::string::npos) << calls[1];
}

TEST(SystemCalls, FirstKeyOfALargeFileCostsNoMoreThanThatOfASmallOne) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  const std::string content = LargeFile();
  ASSERT_TRUE(sandbox::WriteFile(path, content));
  EXPECT_EQ(AbridgedCalls({"read", path, "s", "first"}), (Calls{"fcntl", "openat a.ini", "read", "close", "fcntl"}));
  // The last one costs a read for each full window of lines at most, and a look at what kind of file it is.
  const auto counts = Counted(AbridgedCalls({"read", path, "end", "last"}));
  EXPECT_LE(counts.at("read"), content.size() / 8450 + 2);
  EXPECT_EQ(counts.at("fstat"), 1u);
  EXPECT_EQ(counts.size(), 5u);
}

TEST(SystemCalls, UpdateOfASmallFile) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  const Calls expected{"access " + directory.path().substr(directory.path().rfind('/') + 1),
                       "fcntl",
                       "openat a.ini",
                       "openat kcsini64.tmp",
                       "read",
                       "writev",
                       "read",
                       "close",
                       "close",
                       "chmod a.ini",
                       "unlink a.ini",
                       "rename kcsini64.tmp",
                       "chmod a.ini",
                       "fcntl"};
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\nother=2\n[t]\nkey=3\n"));
  EXPECT_EQ(AbridgedCalls({"write", path, "s", "key", "new value"}), expected);
  EXPECT_EQ(AbridgedCalls({"remove", path, "s", "other"}), expected);
  EXPECT_EQ(AbridgedCalls({"write", path, "s", "added", "value"}), expected);
  EXPECT_EQ(sandbox::ReadFile(path), "[s]\nkey=new value\nadded=value\n[t]\nkey=3\n");
}

TEST(SystemCalls, NewFileAndNewSection) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  const std::string folder = "access " + directory.path().substr(directory.path().rfind('/') + 1);
  EXPECT_EQ(
      AbridgedCalls({"write", path, "s", "key", "1"}),
      (Calls{folder, "fcntl", "openat a.ini", "chmod a.ini", "openat a.ini", "fchmod", "writev", "close", "fcntl"}));
  EXPECT_EQ(AbridgedCalls({"write", path, "t", "key", "2"}),
            (Calls{folder, "fcntl", "openat a.ini", "openat kcsini64.tmp", "read", "writev", "read", "close", "close",
                   "unlink kcsini64.tmp", "chmod a.ini", "openat a.ini", "fchmod", "writev", "close", "fcntl"}));
  EXPECT_EQ(sandbox::ReadFile(path), "[s]\nkey=1\n[t]\nkey=2\n");
}

TEST(SystemCalls, UpdateOfALargeFileReadsAndWritesItOnceInLargePieces) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  const std::string content = LargeFile();
  ASSERT_TRUE(sandbox::WriteFile(path, content));
  const auto counts = Counted(AbridgedCalls({"write", path, "end", "last", "3"}));
  EXPECT_LE(counts.at("read"), content.size() / 8450 + 3);
  EXPECT_LE(counts.at("writev"), content.size() / 8450 + 3);
  EXPECT_EQ(sandbox::ReadFile(path), content.substr(0, content.size() - 2) + "3\n");
}

// --- Every call of a rewrite in turn: the writer dies before it, or the call fails
// ------------------------------------

namespace {

// A call of a program: its name and how many of that name it has made by then.
struct NumberedCall {
  std::string name;
  int number;
  std::string what;  // the name with the file
};

std::vector<NumberedCall> NumberedCallsBetweenMarks(const std::string &trace) {
  std::map<std::string, int> counts;
  std::vector<NumberedCall> calls;
  int marks = 0;
  for (const std::string &line : LinesOf(trace)) {
    const std::string name = line.substr(0, line.find('('));
    const int number = ++counts[name];
    if (line.starts_with("write(2, \"MARK\\n\"")) {
      ++marks;
    } else if (marks == 1) {
      calls.push_back({name, number, Abridged(line)});
    }
  }
  return calls;
}

// An update of a file of three sections, made by a process of its own under strace.
class TracedUpdate {
 public:
  TracedUpdate() : m_path(m_directory.Path("a.ini")), m_trace(m_traces.Path("trace")) {}

  static constexpr const char *kOld = "; comment\n[s]\nfirst=1\nkey=old\n[t]\nkey=3\n";
  static constexpr const char *kNew = "; comment\n[s]\nfirst=1\nkey=new value\n[t]\nkey=3\n";

  // What happens is in the words of strace; nothing if empty.
  ProgramResult Run(const std::string &what) {
    EXPECT_TRUE(sandbox::RemoveTree(m_directory.Path(kTemporaryName)));
    EXPECT_TRUE(sandbox::WriteFile(m_path, kOld));
    std::vector<std::string> arguments{ZEBCS_STRACE, "-qq", "-o", m_trace, "-E", "ASAN_OPTIONS=detect_leaks=0"};
    if (!what.empty()) arguments.insert(arguments.end(), {"-e", "inject=" + what});
    arguments.insert(arguments.end(), {ZEBCS_INI_PROBE, "write", m_path, "s", "key", "new value"});
    return RunProgram(arguments);
  }

  std::vector<NumberedCall> Calls() {
    const ProgramResult result = Run("");
    EXPECT_EQ(result.output, "0\n") << result.errors;
    EXPECT_EQ(FilesLeft(), (Files{{"a.ini", kNew}}));
    const std::vector<NumberedCall> calls = NumberedCallsBetweenMarks(sandbox::ReadFile(m_trace));
    EXPECT_GT(calls.size(), 10u);
    return calls;
  }

  Files FilesLeft() const { return FilesIn(m_directory.path()); }
  std::string path() const { return m_path; }
  std::string Trace() const { return sandbox::ReadFile(m_trace); }

 private:
  TemporaryDirectory m_directory;
  TemporaryDirectory m_traces;
  std::string m_path;
  std::string m_trace;
};

}  // namespace

TEST(KilledWriter, LeavesTheOldFileOrTheNewOneBeforeEachOfItsCalls) {
  TracedUpdate update;
  std::set<std::string> states;
  for (const NumberedCall &call : update.Calls()) {
    const ProgramResult result = update.Run(call.name + ":signal=KILL:when=" + std::to_string(call.number));
    ASSERT_EQ(result.status, 128 + SIGKILL) << call.what;
    ASSERT_EQ(result.errors, "MARK\n") << call.what;
    const Files files = update.FilesLeft();
    if (!files.contains("a.ini")) {
      ASSERT_EQ(files, (Files{{kTemporaryName, TracedUpdate::kNew}})) << call.what;
      states.insert("between");
    } else if (files.at("a.ini") == TracedUpdate::kOld) {
      states.insert("old");
    } else {
      ASSERT_EQ(files, (Files{{"a.ini", TracedUpdate::kNew}})) << call.what;
      states.insert("new");
    }
    ASSERT_EQ(FileLock(0), 1) << call.what;
    FileUnlock();
  }
  EXPECT_EQ(states, (std::set<std::string>{"old", "between", "new"}));
}

TEST(FailingCall, GivesItsStatusAndLeavesAWholeFile) {
  // By the call with its file; the two files are closed in the order in which they were opened.
  const struct {
    const char *what;
    int occurrence;
    s32 status;
  } failures[] = {
      {"openat a.ini", 1, SM_STATUS_NOT_FOUND},     {"openat kcsini64.tmp", 1, SM_STATUS_NOT_FOUND},
      {"read", 1, SM_STATUS_PARSE_ERROR},           {"read", 2, SM_STATUS_PARSE_ERROR},
      {"writev", 1, SM_STATUS_WRITE_FAILED},        {"close", 2, SM_STATUS_WRITE_FAILED},
      {"unlink a.ini", 1, SM_STATUS_DELETE_FAILED}, {"rename kcsini64.tmp", 1, SM_STATUS_RENAME_FAILED},
  };
  TracedUpdate update;
  std::map<std::string, int> occurrences;
  size_t failed = 0;
  for (const NumberedCall &call : update.Calls()) {
    const int occurrence = ++occurrences[call.what];
    const auto failure = std::find_if(std::begin(failures), std::end(failures),
                                      [&](const auto &f) { return f.what == call.what && f.occurrence == occurrence; });
    // The other calls may fail: a directory that cannot be examined may be there, a mode may stay as it is.
    const s32 expected = failure == std::end(failures) ? 0 : failure->status;
    const ProgramResult result = update.Run(call.name + ":error=EIO:when=" + std::to_string(call.number));
    ASSERT_NE(update.Trace().find("(INJECTED)"), std::string::npos) << call.what;
    ASSERT_EQ(result.output, std::to_string(expected) + '\n') << call.what << ' ' << occurrence;
    const Files files = update.FilesLeft();
    if (expected == 0) {
      EXPECT_EQ(files, (Files{{"a.ini", TracedUpdate::kNew}})) << call.what << ' ' << occurrence;
    } else if (expected == SM_STATUS_RENAME_FAILED) {
      EXPECT_EQ(files, (Files{{kTemporaryName, TracedUpdate::kNew}})) << "the old file is gone";
    } else {
      EXPECT_EQ(files.at("a.ini"), TracedUpdate::kOld) << call.what << ' ' << occurrence;
    }
    failed += expected == 0 ? 0 : 1;
    if (expected == SM_STATUS_DELETE_FAILED) {
      EXPECT_EQ(files.at(kTemporaryName), TracedUpdate::kNew);
    }
  }
  EXPECT_EQ(failed, std::size(failures));
}

TEST(FailingCall, ReadErrorEndsAReadAsAMalformedFileDoes) {
  const TemporaryDirectory directory;
  const TemporaryDirectory traces;
  const std::string path = directory.Path("a.ini");
  const std::string trace = traces.Path("trace");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  const std::vector<std::string> probe{ZEBCS_INI_PROBE, "read", path, "s", "none"};
  const auto run = [&](const std::string &what) {
    std::vector<std::string> arguments{ZEBCS_STRACE, "-qq", "-o", trace, "-E", "ASAN_OPTIONS=detect_leaks=0"};
    if (!what.empty()) arguments.insert(arguments.end(), {"-e", "inject=" + what});
    arguments.insert(arguments.end(), probe.begin(), probe.end());
    return RunProgram(arguments).output;
  };
  ASSERT_EQ(run(""), std::to_string(SM_STATUS_KEY_NOT_FOUND) + " \n");
  int reads = 0;
  for (const NumberedCall &call : NumberedCallsBetweenMarks(sandbox::ReadFile(trace))) {
    if (call.name != "read") continue;
    ++reads;
    EXPECT_EQ(run("read:error=EIO:when=" + std::to_string(call.number)), std::to_string(SM_STATUS_PARSE_ERROR) + " \n");
  }
  EXPECT_EQ(reads, 2);
}

// --- A full disk ----------------------------------------------------------------------------------------------------

TEST(FullDisk, UpdateFailsAndLeavesTheOldFile) {
  const std::string keys(3 * kPage - 100, ';');
  const std::string old = "[s]\nkey=1\n" + keys + "\n[t]\nkey=3\n";
  const std::string updated = "[s]\nkey=2\n" + keys + "\n[t]\nkey=3\n";
  constexpr size_t kPages = 3;  // of either
  ASSERT_EQ((old.size() + kPage - 1) / kPage, kPages);
  const TemporaryDirectory directory;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(directory.path(), "size=64k"));
  const std::string path = directory.Path("a.ini");
  for (size_t freePages = 0; freePages <= kPages; ++freePages) {
    ASSERT_TRUE(sandbox::WriteFile(path, old));
    ASSERT_TRUE(FillDisk(directory.path(), freePages));
    const bool isEnough = freePages == kPages;
    EXPECT_EQ(Write(path, "s", "key", "2"), isEnough ? 0 : SM_STATUS_WRITE_FAILED) << freePages;
    EXPECT_EQ(sandbox::ReadFile(path), isEnough ? updated : old) << freePages;
    const std::string temporary = directory.Path(kTemporaryName);
    EXPECT_EQ(Exists(temporary), !isEnough) << "it stays where it is";
    if (!isEnough) {
      EXPECT_TRUE(updated.starts_with(sandbox::ReadFile(temporary))) << freePages;
      EXPECT_EQ(Write(path, "new section", "key", "2"), SM_STATUS_WRITE_FAILED) << freePages;
      EXPECT_EQ(Remove(path, "s", "key"), SM_STATUS_WRITE_FAILED) << freePages;
      EXPECT_EQ(sandbox::ReadFile(path), old) << freePages;
      EXPECT_EQ(Read(path, "t", "key"), "3");
      ASSERT_TRUE(sandbox::RemoveTree(temporary));
    }
    ASSERT_TRUE(sandbox::RemoveTree(directory.Path("filler")));
  }
}

TEST(FullDisk, LargeUpdateFailsAndLeavesTheOldFile) {
  const TemporaryDirectory directory;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(directory.path(), "size=6m"));
  const std::string path = directory.Path("a.ini");
  const std::string old = LargeFile();
  ASSERT_TRUE(sandbox::WriteFile(path, old));
  for (const size_t freePages : {0u, 1u, 9u, 100u, 700u}) {
    ASSERT_TRUE(FillDisk(directory.path(), freePages));
    EXPECT_EQ(Write(path, "s", "first", "2"), SM_STATUS_WRITE_FAILED) << freePages;
    EXPECT_EQ(Write(path, "end", "last", "3"), SM_STATUS_WRITE_FAILED) << freePages;
    EXPECT_TRUE(sandbox::ReadFile(path) == old) << freePages;
    ASSERT_TRUE(sandbox::RemoveTree(directory.Path(kTemporaryName)));
    ASSERT_TRUE(sandbox::RemoveTree(directory.Path("filler")));
  }
}

TEST(FullDisk, NewFileFailsAndHoldsNothingHalf) {
  const TemporaryDirectory directory;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(directory.path(), "size=64k"));
  ASSERT_TRUE(FillDisk(directory.path(), 0));
  const std::string path = directory.Path("a.ini");
  EXPECT_EQ(Write(path, "s", "key", "1"), SM_STATUS_WRITE_FAILED);
  if (Exists(path)) {
    EXPECT_EQ(sandbox::ReadFile(path), "");
  }
  ASSERT_TRUE(sandbox::RemoveTree(directory.Path("filler")));
  EXPECT_EQ(Write(path, "s", "key", "1"), 0);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.ini", "[s]\nkey=1\n"}}));
}

TEST(FullDisk, NewSectionThatDoesNotFitLeavesTheOldFile) {
  // The copy fits where the longer file does not: a value of two pages at the end of a file of one.
  const std::string old = "[s]\nkey=1\n" + std::string(kPage / 2, ';') + '\n';
  const TemporaryDirectory directory;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(directory.path(), "size=64k"));
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, old));
  ASSERT_TRUE(FillDisk(directory.path(), 1));
  const std::string value(8192, 'v');
  ASSERT_GT(old.size() + value.size(), 2 * kPage);
  EXPECT_EQ(Write(path, "t", "key", value), SM_STATUS_WRITE_FAILED);
  EXPECT_EQ(sandbox::ReadFile(path), old);
}

TEST(FullDisk, WithoutRoomForAnotherFileNothingIsOpened) {
  const TemporaryDirectory directory;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(directory.path(), "size=64k,nr_inodes=2"));  // the directory itself and one file
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n", 01664));
  const FileState before(path);
  EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(Write(path, "new", "key", "2"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(Write(directory.Path("b.ini"), "s", "key", "2"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(Write(directory.Path("new/b.ini"), "s", "key", "2"), -1) << "nor is there room for a directory";
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(FilesIn(directory.path()).size(), 1u);
}

// --- Directories and files that refuse ------------------------------------------------------------------------------

TEST(ReadOnlyDirectory, WritesFailAndTheFileStays) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  const FileState before(path);
  {
    Mount mount;
    ASSERT_TRUE(mount.ReadOnly(directory.path()));
    EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_NOT_FOUND);
    EXPECT_EQ(Write(path, "new", "key", "2"), SM_STATUS_NOT_FOUND);
    EXPECT_EQ(Remove(path, "s", "key"), SM_STATUS_NOT_FOUND);
    EXPECT_EQ(Write(directory.Path("b.ini"), "s", "key", "2"), SM_STATUS_NOT_FOUND);
    EXPECT_EQ(Write(directory.Path("new/b.ini"), "s", "key", "2"), -1);
    EXPECT_EQ(Read(path, "s", "key"), "1");
    EXPECT_EQ(FileState(path), before);
    EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.ini", "[s]\nkey=1\n"}}));
  }
  EXPECT_EQ(Write(path, "s", "key", "2"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), "[s]\nkey=2\n");
}

TEST(MissingDirectory, IsMadeOneLevelDeep) {
  const TemporaryDirectory directory;
  const mode_t mask = umask(077);
  EXPECT_EQ(Write(directory.Path("new/a.ini"), "s", "key", "1"), 0);
  umask(mask);
  EXPECT_EQ(ModeOf(directory.Path("new")), static_cast<mode_t>(S_IFDIR | 0755));
  EXPECT_EQ(FilesIn(directory.Path("new")), (Files{{"a.ini", "[s]\nkey=1\n"}}));
  EXPECT_EQ(ModeOf(directory.Path("new/a.ini")), kIniMode);

  EXPECT_EQ(Write(directory.Path("one/two/a.ini"), "s", "key", "1"), -1);
  EXPECT_FALSE(Exists(directory.Path("one")));
  EXPECT_EQ(Remove(directory.Path("three/a.ini"), "s", "key"), SM_STATUS_BAD_SIZE) << "there is nothing to remove from";
  EXPECT_EQ(FilesIn(directory.Path("three")), Files());
}

TEST(MissingDirectory, FileInItsPlaceIsNoDirectory) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("file"), "text", 0640));
  const FileState before(directory.Path("file"));
  EXPECT_EQ(Write(directory.Path("file/a.ini"), "s", "key", "1"), SM_STATUS_NOT_FOUND) << "something is there";
  EXPECT_EQ(FileState(directory.Path("file")), before);
}

TEST(MissingDirectory, ReadingMakesNone) {
  const TemporaryDirectory directory;
  EXPECT_EQ(Read(directory.Path("new/a.ini"), "s", "key"), "status 7");
  EXPECT_EQ(FilesIn(directory.path()), Files());
}

TEST(Directory, PathWithoutOneIsInTheWorkingDirectory) {
  const TemporaryDirectory directory;
  ASSERT_EQ(chdir(directory.path().c_str()), 0);
  EXPECT_EQ(Write("a.ini", "s", "key", "1"), 0);
  EXPECT_EQ(Write("a.ini", "s", "key", "2"), 0);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.ini", "[s]\nkey=2\n"}}));
  // Where the temporary file was is seen when it cannot be used.
  ASSERT_EQ(symlink("target", kTemporaryName), 0);
  EXPECT_EQ(Write("a.ini", "s", "key", "3"), SM_STATUS_NOT_FOUND);
  ASSERT_EQ(chdir("/"), 0);
}

TEST(FileThatStays, DeletionFailsWithTheNewContentInTheTemporaryFile) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n[t]\nkey=3\n"));
  {
    Mount mount;
    ASSERT_TRUE(mount.OverItself(path));  // a mount point cannot be deleted
    EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_DELETE_FAILED);
    EXPECT_EQ(FilesIn(directory.path()),
              (Files{{"a.ini", "[s]\nkey=1\n[t]\nkey=3\n"}, {kTemporaryName, "[s]\nkey=2\n[t]\nkey=3\n"}}));
    EXPECT_EQ(Remove(path, "s", "key"), SM_STATUS_DELETE_FAILED);
    EXPECT_EQ(FilesIn(directory.path()),
              (Files{{"a.ini", "[s]\nkey=1\n[t]\nkey=3\n"}, {kTemporaryName, "[s]\n[t]\nkey=3\n"}}));
    EXPECT_EQ(ReplaceFile(path.c_str(), directory.Path(kTemporaryName).c_str()), SM_STATUS_DELETE_FAILED);
    EXPECT_TRUE(Exists(directory.Path(kTemporaryName)));
    EXPECT_EQ(KCSDeleteFile(path.c_str()), -1);
    // A new section needs no deletion.
    EXPECT_EQ(Write(path, "u", "key", "4"), 0);
    EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.ini", "[s]\nkey=1\n[t]\nkey=3\n[u]\nkey=4\n"}}));
  }
  EXPECT_EQ(Write(path, "s", "key", "2"), 0);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.ini", "[s]\nkey=2\n[t]\nkey=3\n[u]\nkey=4\n"}}));
}

// --- What may lie under the temporary name --------------------------------------------------------------------------

TEST(TemporaryFile, StaleOneIsTruncated) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  ASSERT_TRUE(sandbox::WriteFile(directory.Path(kTemporaryName), std::string(100000, 'x'), 0600));
  EXPECT_EQ(Write(path, "s", "key", "2"), 0);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.ini", "[s]\nkey=2\n"}}));
  EXPECT_EQ(ModeOf(path), kIniMode);
}

TEST(TemporaryFile, MalformedFileLeavesWhatLedUpToIt) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[r]\nkey=0\n[broken\n[s]\nkey=1\n"));
  const FileState before(path);
  EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_PARSE_ERROR);
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(sandbox::ReadFile(directory.Path(kTemporaryName)), "[r]\nkey=0\n[broken\n");
}

TEST(TemporaryFile, LinkIsRefusedAndItsTargetUntouched) {
  const TemporaryDirectory directory;
  const TemporaryDirectory elsewhere;
  const std::string path = directory.Path("a.ini");
  const std::string target = elsewhere.Path("target");
  const std::string link = directory.Path(kTemporaryName);
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  ASSERT_TRUE(sandbox::WriteFile(target, "precious"));
  const FileState before(path);
  const FileState targetBefore(target);
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(Write(path, "new", "key", "2"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(Remove(path, "s", "key"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(FileState(target), targetBefore);
  EXPECT_TRUE(std::filesystem::is_symlink(link));

  // One that leads nowhere makes nothing there.
  ASSERT_TRUE(sandbox::RemoveTree(target));
  EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(FilesIn(elsewhere.path()), Files());
  EXPECT_EQ(Write(directory.Path("b.ini"), "s", "key", "1"), 0) << "a new file needs no temporary one";
}

TEST(TemporaryFile, DirectoryInItsPlaceIsRefused) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  ASSERT_TRUE(sandbox::MakeDirectories(directory.Path(kTemporaryName)));
  const FileState before(path);
  EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(FileState(path), before);
}

TEST(TemporaryFile, PipeThatNobodyReadsIsRefusedAtOnce) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  ASSERT_EQ(mkfifo(directory.Path(kTemporaryName).c_str(), 0666), 0);
  const FileState before(path);
  // A writer that waited for a reader would hold the lock for ever, and nobody could use any INI file.
  Process writer(std::chrono::seconds(10));
  ASSERT_TRUE(writer.Start([&path](Channel &) { return Write(path, "s", "key", "2"); }));
  EXPECT_EQ(writer.Wait(), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(FileState(path), before);
}

TEST(TemporaryFile, PipeThatSomebodyReadsIsRefused) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  const std::string pipe = directory.Path(kTemporaryName);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0666), 0);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_NE(reader, -1);
  const FileState before(path);
  EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_NOT_FOUND) << "else the pipe would take the file's place";
  EXPECT_EQ(FileState(path), before);
  char byte = 0;
  EXPECT_EQ(read(reader, &byte, 1), 0) << "nothing was written";
  close(reader);
}

TEST(TemporaryFile, IsNoIniFileItself) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path(kTemporaryName);
  ASSERT_TRUE(sandbox::WriteFile(path, "[a]\nkey=1\n[s]\nkey=1\n"));
  const FileState before(path);
  EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_BAD_PARAMETER) << "it would be overwritten by its own copy";
  ASSERT_EQ(chdir(directory.path().c_str()), 0);
  EXPECT_EQ(Write(kTemporaryName, "s", "key", "2"), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(Read(path, "s", "key"), "1");
}

TEST(PipeForAFile, IsNotWaitedFor) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
  // A caller that waited here would hold the lock for ever.
  Process caller(std::chrono::seconds(10));
  ASSERT_TRUE(caller.Start([&path](Channel &) {
    EXPECT_EQ(Read(path, "s", "key"), "status " + std::to_string(SM_STATUS_SECTION_NOT_FOUND)) << "as an empty file";
    EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_NOT_FOUND);
    return 0;
  }));
  EXPECT_EQ(caller.Wait(), 0);
  EXPECT_EQ(ModeOf(path) & S_IFMT, static_cast<mode_t>(S_IFIFO));
}

TEST(AppendValue, FileBelowAFileDoesNotExist) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("plain"), "text"));
  EXPECT_EQ(Remove(directory.Path("plain/b.ini"), "s", "key"), SM_STATUS_BAD_SIZE);
  EXPECT_EQ(Write(directory.Path("plain/b.ini"), "s", "key", "1"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"plain", "text"}}));
}

TEST(TemporaryFile, OtherNameOfTheFileIsRefused) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\nother=2\n"));
  ASSERT_EQ(link(path.c_str(), directory.Path(kTemporaryName).c_str()), 0);
  EXPECT_EQ(Write(path, "s", "key", "2"), SM_STATUS_NOT_FOUND) << "emptying it would empty the file";
  EXPECT_EQ(sandbox::ReadFile(path), "[s]\nkey=1\nother=2\n");
}

TEST(Threads, DoNotLoseEachOthersUpdates) {
  constexpr int kThreads = 4;
  constexpr int kKeys = 50;
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\n"));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&path, t] {
      for (int i = 0; i < kKeys; ++i) {
        const std::string key = Name("key", t * kKeys + i);
        // Whether a call may wait for other processes makes no difference: there are none.
        EXPECT_EQ(Write(path, "s", key, "value", static_cast<booln>(i % 2)), 0);
        EXPECT_EQ(Read(path, "s", key), "value");
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (int i = 0; i < kThreads * kKeys; ++i) EXPECT_EQ(Read(path, "s", Name("key", i)), "value");
  EXPECT_EQ(FilesIn(directory.path()).size(), 1u);
}

TEST(Threads, CallThatMustNotWaitIsToldOfAnotherProcess) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n"));
  LockHolder holder;
  ASSERT_TRUE(holder);
  std::thread waiting([&path] { EXPECT_EQ(Write(path, "s", "key", "2"), 0); });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Write(path, "s", "key", "3", 0), SM_STATUS_LOCK_TIMEOUT) << "also while a thread waits";
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  holder.Release();
  waiting.join();
  EXPECT_EQ(Read(path, "s", "key"), "2");
}

TEST(Threads, ChildOfAProcessAtWorkCanWork) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=2\n"));
  std::atomic<bool> isEnding = false;
  std::thread busy([&path, &isEnding] {
    while (!isEnding) EXPECT_EQ(Write(path, "s", "key", "2"), 0);
  });
  for (int i = 0; i < 30; ++i) {
    Process child(std::chrono::seconds(30));
    EXPECT_TRUE(child.Start([&path](Channel &) { return Read(path, "s", "key") == "2" ? 0 : 1; }));
    EXPECT_EQ(child.Wait(), 0) << "what another thread held does not come along";
  }
  isEnding = true;
  busy.join();
}
