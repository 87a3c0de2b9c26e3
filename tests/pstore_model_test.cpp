// The INI store beside a model that holds the file as lines, over random files and operations. Every operation is
// compared whole.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <random>
#include <string>

#include "guarded_buffer.h"
#include "ini_model.h"
#include "sandbox.h"
#include "zebcs/ini.h"

namespace {

using namespace std::string_literals;
using ini_model::Bytes;
using ini_model::BytesOf;
using ini_model::Change;
using ini_model::Disk;
using ini_model::IsNumber;
using ini_model::kPiece;
using ini_model::Reading;
using ini_model::Request;
using ini_model::UpToZero;
using ini_model::WidthOf;
using sandbox::GuardedBuffer;

constexpr mode_t kMadeMode = 0644;

// --- Random files and operations ------------------------------------------------------------------------------------

class Dice {
 public:
  explicit Dice(u32 seed) : m_engine(seed) {}
  size_t Below(size_t limit) { return m_engine() % limit; }
  bool OneIn(size_t count) { return Below(count) == 0; }

  template <class T, size_t kCount>
  const T &Of(const T (&choices)[kCount]) {
    return choices[Below(kCount)];
  }
  std::string RandomBytes(size_t count) {
    std::string bytes(count, '\0');
    for (char &c : bytes) c = static_cast<char>(m_engine());
    return bytes;
  }
  u64 Wide() { return u64{m_engine()} << 32 | m_engine(); }

 private:
  std::mt19937 m_engine;
};

const std::string kSections[] = {"s", "t", "S", "", " s ", "[s", "st", "a long name of a section", "s\tt", "s\xFF"};
const std::string kKeys[] = {"k", "l", "K", "", "k ", ";k", "#k", "kk", "\xFFk", "k\r", "=k", "k=l", "[k", " k"};
const std::string kValues[] = {
    "",
    "v",
    " v w ",
    "1",
    "-1",
    "+7x",
    "TRUE",
    "false",
    " true x",
    "TRUE\r",
    "FALSE\t",
    "  ",
    "abc",
    "4294967296",
    "2147483648",
    "0x10",
    "1.5",
    "-2e3",
    "1e400",
    "0x01,0xAB",
    "1,2,,3,",
    "1,zz,2",
    "1,100,2",
    ",",
    "0x",
    "-",
    "a=b=c",
    "[x]",
    "; x",
    "nan",
    "FF,ff,0Xf",
    "-1,2",
    "1 , 2",
    "1\0b"s,
    "99999999999999999999",
    "-99999999999999999999",
    "18446744073709551615",
    "100000001",
    "0x1p4",
    "inf",
};
const std::string kEnds[] = {"\n", "\n", "\n", "\n", "\r\n", "\r\n", "\n\n", " \n"};
const std::string kBlanks[] = {"", "", "", "", " ", "\t", " \t ", "\v", "\r"};

// A length about which something may change: pieces, and sizes in which files are commonly read.
size_t NotableLength(Dice &dice) {
  constexpr size_t kLengths[] = {255,        256,    4096,   8192,  8193,       8450, 8451,
                                 2 * kPiece, kPiece, kPiece, 16384, 3 * kPiece, 32768};
  return dice.Of(kLengths) - 4 + dice.Below(9);
}

std::string LongText(Dice &dice) {
  std::string text(NotableLength(dice), dice.OneIn(4) ? ' ' : 'x');
  // Something that may come to stand at the start of a piece, or be cut in two.
  constexpr size_t kReach = 12;
  if (dice.OneIn(2) && text.size() > kPiece + kReach) {
    const std::string parts[] = {"k=1", "[s]", "[", ";k=2", "#", "l", "=", "]", "\0"s, " k=3"};
    const std::string &part = dice.Of(parts);
    text.replace(kPiece - kReach / 2 + dice.Below(kReach), part.size(), part);
  }
  return text;
}

std::string RandomLine(Dice &dice, bool hasLongLines) {
  if (hasLongLines && dice.OneIn(6)) {
    const std::string starts[] = {"", "k=", "l=", ";", "[", "[s]", "  ", "[t"};
    const std::string ends[] = {"\n", "\n", "", "]\n", "=\n", "k=1\n"};
    const std::string start = dice.Of(starts);
    return start + LongText(dice) + dice.Of(ends);
  }
  std::string line = dice.Of(kBlanks);
  switch (dice.Below(12)) {
    case 0:
    case 1: line += '[' + dice.Of(kSections) + ']'; break;
    case 2: line += dice.Of(kKeys); break;
    case 3: line = ";#"[dice.Below(2)] + dice.Of(kKeys) + '=' + dice.Of(kValues); break;
    case 4: break;
    case 5: line += '[' + dice.Of(kSections) + "] " + dice.Of(kValues); break;
    case 6:
      if (dice.OneIn(5)) line += '[' + dice.Of(kSections);
      break;
    case 7:
      if (dice.OneIn(4)) line += "[n\0m]"s;
      if (dice.OneIn(4)) line += "n\0m=1"s;
      break;
    default: line += dice.Of(kKeys) + '=' + dice.Of(kValues); break;
  }
  return line + dice.Of(kEnds);
}

Bytes RandomFile(Dice &dice, bool hasLongLines) {
  if (dice.OneIn(12)) return std::nullopt;
  std::string text;
  if (hasLongLines && dice.OneIn(3)) {
    // Many lines in front, so that the others stand where a buffer ends.
    const size_t length = NotableLength(dice) * (1 + dice.Below(3));
    const std::string filler = dice.OneIn(2) ? ";filler\n" : "a[b=1\n";
    while (text.size() < length) text += filler;
    text.resize(length);
    if (dice.OneIn(2)) text += '\n';
  }
  const size_t lines = dice.Below(hasLongLines ? 12 : 25);
  for (size_t i = 0; i < lines; ++i) text += RandomLine(dice, hasLongLines);
  while (!text.empty() && text.back() == '\n' && dice.OneIn(4)) text.pop_back();
  return text;
}

Bytes Maybe(Dice &dice, const std::string &text, size_t oneIn) { return dice.OneIn(oneIn) ? Bytes() : Bytes(text); }

u32 RandomSize(Dice &dice) {
  switch (dice.Below(8)) {
    case 0: return static_cast<u32>(dice.Below(3));
    case 1:
    case 2: return static_cast<u32>(dice.Below(10));
    case 3: return static_cast<u32>(NotableLength(dice));
    case 4: return 20000;
    default: return static_cast<u32>(dice.Below(60));
  }
}

std::string WideText(Dice &dice, size_t length) {
  std::string bytes;
  for (size_t i = 0; i < length; ++i) bytes += BytesOf(static_cast<ustring>(1 + dice.Below(0xFFFF)));
  return bytes + "\0\0"s;
}

std::string RandomKey(Dice &dice) { return dice.OneIn(2) ? "k" : dice.Of(kKeys); }
std::string RandomSection(Dice &dice) { return dice.OneIn(2) ? "s" : dice.Of(kSections); }

u32 RandomType(Dice &dice) {
  return dice.OneIn(2) ? u32{ZEBCS_INI_ASTRING} : static_cast<u32>(1 + dice.Below(ZEBCS_INI_D64));
}

Request RandomRequest(Dice &dice, const Change &last) {
  Request request;
  request.type = RandomType(dice);
  request.section = Maybe(dice, RandomSection(dice), 8);
  request.key = Maybe(dice, RandomKey(dice), 6);
  if (dice.OneIn(2)) {
    // What was written last: a value that is likely to be there, and of the right type.
    request = {.type = last.type, .section = last.section, .key = last.key};
  }
  request.size = RandomSize(dice);
  if (IsNumber(request.type) && !dice.OneIn(8)) {
    request.size = static_cast<u32>(WidthOf(request.type) + dice.Below(3));
  }
  if (dice.OneIn(2)) {
    request.defaultBytes = IsNumber(request.type)              ? dice.RandomBytes(WidthOf(request.type))
                           : request.type == ZEBCS_INI_USTRING ? WideText(dice, dice.Below(10))
                                                               : dice.RandomBytes(dice.Below(40));
    request.dSize = static_cast<u32>(request.defaultBytes->size());
  }
  if (IsNumber(request.type)) {
    if (dice.OneIn(4)) request.dSize = static_cast<u32>(dice.Below(12));
  } else if (request.dSize > 0 && dice.OneIn(8)) {
    --request.dSize;
  }
  return request;
}

std::string RandomText(Dice &dice) {
  switch (dice.Below(12)) {
    case 0: return std::string(NotableLength(dice), 'y');
    case 1: return std::string(8190 + dice.Below(5), 'z');
    case 2: return "a\nk=b\n[s]";
    default: return UpToZero(dice.Of(kValues));
  }
}

std::string RandomNumber(Dice &dice, u32 type) {
  if (type == ZEBCS_INI_BOOLN) return BytesOf(static_cast<booln>(dice.Below(4)));
  if (type == ZEBCS_INI_D64) {
    const d64 values[] = {0, -0.5, 1e-9, 1e85, -1e85, 1e300, 123456.789, 1.0 / static_cast<d64>(1 + dice.Below(100))};
    return dice.OneIn(4) ? BytesOf(dice.Wide()) : BytesOf(dice.Of(values));
  }
  return BytesOf(dice.Wide() >> dice.Below(64)).substr(0, WidthOf(type));
}

Change RandomChange(Dice &dice) {
  Change change;
  change.type = RandomType(dice);
  change.section = RandomSection(dice);
  change.key = RandomKey(dice);
  if (dice.OneIn(40)) change.section = std::string(254 + dice.Below(4), 's');
  if (dice.OneIn(40)) change.key = std::string(254 + dice.Below(4), 'k');
  if (!dice.OneIn(5)) {
    switch (change.type) {
      case ZEBCS_INI_ASTRING: change.bytes = RandomText(dice) + '\0'; break;
      case ZEBCS_INI_USTRING:
        change.bytes = WideText(dice, dice.OneIn(9) ? 800 + dice.Below(250) : dice.Below(9));
        break;
      case ZEBCS_INI_BINARY:
        change.bytes = dice.RandomBytes(dice.OneIn(9) ? 1636 + dice.Below(420) : 1 + dice.Below(20));
        break;
      default: change.bytes = RandomNumber(dice, change.type); break;
    }
    change.vSize = static_cast<u32>(change.bytes->size());
  }
  if (dice.OneIn(15)) change.vSize += IsNumber(change.type) || dice.OneIn(2) ? -1u : 0u;
  if (dice.OneIn(15) && (IsNumber(change.type) || change.type == ZEBCS_INI_ASTRING)) ++change.vSize;
  return change;
}

// --- Side by side ---------------------------------------------------------------------------------------------------

std::string Shown(const std::string &text) {
  constexpr size_t kShown = 1500;
  return std::to_string(text.size()) + " bytes " + testing::PrintToString(text.substr(0, kShown));
}

std::string Shown(const Bytes &text) { return text ? Shown(*text) : "none"; }

std::string Shown(const Request &request) {
  return "read type " + std::to_string(request.type) + " section " + Shown(request.section) + " key " +
         Shown(request.key) + " size " + std::to_string(request.size) + " default " + Shown(request.defaultBytes) +
         " dSize " + std::to_string(request.dSize);
}

std::string Shown(const Change &change) {
  return "write type " + std::to_string(change.type) + " section " + Shown(change.section) + " key " +
         Shown(change.key) + " value " + Shown(change.bytes) + " vSize " + std::to_string(change.vSize);
}

std::string Shown(const Reading &reading) {
  return "status " + std::to_string(reading.status) + " size " + std::to_string(reading.size) + " buffer " +
         Shown(reading.buffer);
}

std::string Shown(const Disk &disk) {
  return "file " + Shown(disk.file) + "\nmode " + std::to_string(disk.mode) + "\ntemporary file " +
         Shown(disk.temporary);
}

class Store {
 public:
  void Set(const Bytes &text) {
    if (text) {
      sandbox::WriteFile(m_path, *text, kMadeMode);
    } else {
      sandbox::RemoveTree(m_path);
    }
  }

  Disk Look() const {
    struct stat information {};
    const bool isThere = stat(m_path.c_str(), &information) == 0;
    return {ContentOf(m_path), ContentOf(m_temporary), isThere ? information.st_mode & 07777 : 0};
  }

  // The buffer ends where memory ends, but for the byte behind it that belongs to a list.
  Reading Read(const Request &request, std::string &before) const {
    const bool isList = request.type == ZEBCS_INI_ASTRING && (!request.section || !request.key);
    const size_t room = IsNumber(request.type) ? WidthOf(request.type) : request.size + (isList ? 1 : 0);
    const GuardedBuffer buffer(room);
    const GuardedBuffer defaultBytes(request.defaultBytes ? request.defaultBytes->size() : 0);
    if (defaultBytes.size() > 0) {
      std::memcpy(defaultBytes.data<char>(), request.defaultBytes->data(), defaultBytes.size());
    }
    before.assign(buffer.data<char>(), room);
    u32 size = request.size;
    const s32 status = KCSReadINIPathFileValue(
        request.section ? request.section->c_str() : nullptr, request.key ? request.key->c_str() : nullptr,
        request.type, buffer.data<void>(), &size, request.defaultBytes ? defaultBytes.data<void>() : nullptr,
        request.dSize, m_path.c_str(), 1);
    return {status, size, std::string(buffer.data<char>(), room)};
  }

  s32 Write(const Change &change) const {
    const GuardedBuffer value(change.bytes ? change.bytes->size() : 0);
    if (value.size() > 0) std::memcpy(value.data<char>(), change.bytes->data(), value.size());
    return KCSWriteINIPathFileValue(change.section.c_str(), change.key.c_str(), change.type,
                                    change.bytes ? value.data<void>() : nullptr, change.vSize, m_path.c_str(), 1);
  }

 private:
  static Bytes ContentOf(const std::string &path) {
    return access(path.c_str(), F_OK) == 0 ? Bytes(sandbox::ReadFile(path)) : std::nullopt;
  }

  sandbox::TemporaryDirectory m_directory;
  std::string m_path = m_directory.Path("a.ini");
  std::string m_temporary = m_directory.Path("kcsini64.tmp");
};

void RunSideBySide(u32 seed, bool hasLongLines, int files, int operations) {
  Dice dice(seed);
  Store store;
  Disk model;
  Change last{.type = ZEBCS_INI_ASTRING, .section = "s", .key = "k"};
  for (int i = 0; i < files; ++i) {
    model.file = RandomFile(dice, hasLongLines);
    model.mode = model.file ? kMadeMode : 0;
    store.Set(model.file);
    for (int j = 0; j < operations; ++j) {
      const std::string where =
          "seed " + std::to_string(seed) + " file " + std::to_string(i) + " operation " + std::to_string(j) + ": ";
      if (dice.OneIn(40)) {
        store.Set(std::nullopt);
        model = store.Look();
      }
      if (dice.OneIn(2)) {
        const Request request = RandomRequest(dice, last);
        std::string before;
        const Reading got = store.Read(request, before);
        const Reading expected = ini_model::Read(model.file, request, before);
        ASSERT_TRUE(got == expected) << where << Shown(request) << "\nexpected " << Shown(expected) << "\ngot "
                                     << Shown(got) << '\n'
                                     << Shown(model);
      } else {
        const Change change = RandomChange(dice);
        last = change;
        const Disk before = model;
        const s32 expected = ini_model::Write(model, change);
        const s32 status = store.Write(change);
        ASSERT_EQ(status, expected) << where << Shown(change) << '\n' << Shown(before);
        const Disk after = store.Look();
        ASSERT_TRUE(after == model) << where << Shown(change) << " gives " << status << "\nbefore: " << Shown(before)
                                    << "\nexpected: " << Shown(model) << "\ngot: " << Shown(after);
      }
    }
    const Disk atTheEnd = store.Look();
    ASSERT_TRUE(atTheEnd == model) << "seed " << seed << " file " << i << ": reading changed something";
  }
}

}  // namespace

class INIStore : public testing::TestWithParam<u32> {};

TEST_P(INIStore, AgreesWithTheModelOnShortLines) { RunSideBySide(GetParam(), false, 150, 30); }

TEST_P(INIStore, AgreesWithTheModelOnLongLines) { RunSideBySide(1000 + GetParam(), true, 100, 20); }

INSTANTIATE_TEST_SUITE_P(Seed, INIStore, testing::Range(1u, 9u));
