// The INI store beside a model that holds the file as lines, over random files and operations.
//
// The model is as plain as it can be: it takes the file as one text, splits it into pieces for every operation, and
// says what status, size, buffer, file and temporary file must come out. Every operation is compared whole.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <strings.h>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "zebcs/ini.h"

namespace {

using namespace std::string_literals;
using sandbox::GuardedBuffer;
using Bytes = std::optional<std::string>;

constexpr size_t kPiece = 8449;
constexpr size_t kTextRoom = 8193;    // of a typed reader, for the text of a value
constexpr size_t kBinaryRoom = 8451;  // likewise, for a list of bytes
constexpr mode_t kWrittenMode = 01664;
constexpr mode_t kMadeMode = 0644;

constexpr size_t WidthOf(u32 type) {
  constexpr size_t kWidths[] = {0, 1, 1, 1, 2, 4, 4, 8, 8, 8};
  return kWidths[type];
}

bool IsNumber(u32 type) { return type >= ZEBCS_INI_BOOLN; }

// --- The model ------------------------------------------------------------------------------------------------------

std::vector<std::string> PiecesOf(const std::string &text) {
  std::vector<std::string> pieces;
  std::string piece;
  for (const char c : text) {
    piece += c;
    if (c != '\n' && piece.size() < kPiece) continue;
    pieces.push_back(piece);
    piece.clear();
  }
  if (!piece.empty()) pieces.push_back(piece);
  return pieces;
}

std::string Joined(const std::vector<std::string> &pieces) {
  std::string text;
  for (const std::string &piece : pieces) text += piece;
  return text;
}

struct Line {
  bool isComment = false;
  bool isHeader = false;  // also a malformed one
  bool isMalformed = false;
  bool hasValue = false;
  std::string name;  // of the section or the key
  std::string value;
};

Line LineOf(const std::string &piece) {
  Line line;
  size_t end = piece.size();
  if (piece[end - 1] == '\n') --end;
  if (piece[0] == ';' || piece[0] == '#') {
    line.isComment = true;
    return line;
  }
  size_t i = 0;
  while (i < end && (piece[i] == ' ' || piece[i] == '\t')) ++i;
  if (i < end && piece[i] == '[') {
    line.isHeader = true;
    line.isMalformed = true;
    for (++i; i < end; ++i) {
      if (piece[i] == ']') {
        line.isMalformed = false;
        break;
      }
      line.name += piece[i];
    }
    return line;
  }
  for (; i < end; ++i) {
    if (!line.hasValue && piece[i] == '=') {
      line.hasValue = true;
    } else {
      (line.hasValue ? line.value : line.name) += piece[i];
    }
  }
  return line;
}

std::string UpToZero(const std::string &text) { return text.c_str(); }

// The number of the piece behind the first header of that name, or a status.
struct Found {
  s32 status;
  size_t next;
};

Found FindSection(const std::vector<std::string> &pieces, const std::string &section) {
  for (size_t i = 0; i < pieces.size(); ++i) {
    const Line line = LineOf(pieces[i]);
    if (line.isMalformed) return {SM_STATUS_PARSE_ERROR, i + 1};
    if (line.isHeader && line.name == section) return {SM_STATUS_SUCCESS, i + 1};
  }
  return {SM_STATUS_SECTION_NOT_FOUND, pieces.size()};
}

struct Request {
  u32 type = 0;
  Bytes section = std::nullopt;
  Bytes key = std::nullopt;
  u32 size = 0;
  Bytes defaultBytes = std::nullopt;
  u32 dSize = 0;
};

// What a read leaves behind. The buffer is longer than the room, so that what lies behind it is compared, too.
struct Reading {
  s32 status;
  u32 size;
  std::string buffer;
  bool operator==(const Reading &) const = default;
};

void Put(std::string &buffer, size_t at, const std::string &bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) buffer.at(at + i) = bytes[i];
}

void ReadNames(const std::vector<std::string> &names, Reading &reading) {
  const size_t room = reading.size;
  size_t total = 0;
  for (const std::string &name : names) {
    total += name.size() + 1;
    if (total <= room) Put(reading.buffer, total - name.size() - 1, name + "\0\0"s);
  }
  reading.status = total <= room ? SM_STATUS_SUCCESS : SM_STATUS_BUFFER_TOO_SMALL;
  reading.size = static_cast<u32>(total);
}

void ReadSections(const std::vector<std::string> &pieces, Reading &reading) {
  std::vector<std::string> names;
  bool isMalformed = false;
  for (const std::string &piece : pieces) {
    const Line line = LineOf(piece);
    isMalformed = line.isMalformed;
    if (isMalformed) break;
    if (line.isHeader) names.push_back(UpToZero(line.name));
  }
  const u32 room = reading.size;
  reading.status = SM_STATUS_SECTION_NOT_FOUND;
  if (!names.empty()) ReadNames(names, reading);
  if (isMalformed) {
    reading.status = SM_STATUS_PARSE_ERROR;
    reading.size = room;
  }
}

void ReadKeys(const std::vector<std::string> &pieces, const std::string &section, Reading &reading) {
  const Found found = FindSection(pieces, section);
  reading.status = found.status;
  if (found.status != SM_STATUS_SUCCESS) return;
  std::vector<std::string> names;
  for (size_t i = found.next; i < pieces.size(); ++i) {
    const Line line = LineOf(pieces[i]);
    if (line.isHeader) break;
    if (line.hasValue) names.push_back(UpToZero(line.name));
  }
  reading.status = SM_STATUS_KEY_NOT_FOUND;
  if (!names.empty()) ReadNames(names, reading);
}

void ReadOneValue(const std::vector<std::string> &pieces, const Request &request, Reading &reading) {
  const Found found = FindSection(pieces, *request.section);
  reading.status = found.status;
  if (found.status != SM_STATUS_SUCCESS) return;
  reading.status = SM_STATUS_KEY_NOT_FOUND;
  for (size_t i = found.next; i < pieces.size(); ++i) {
    const Line line = LineOf(pieces[i]);
    if (line.isHeader) return;
    if (!line.hasValue || line.name != *request.key) continue;
    const std::string stored = UpToZero(line.value) + '\0';
    reading.status = SM_STATUS_BUFFER_TOO_SMALL;
    if (stored.size() <= reading.size) {
      Put(reading.buffer, 0, stored);
      reading.status = SM_STATUS_SUCCESS;
    }
    reading.size = static_cast<u32>(stored.size());
    return;
  }
}

void ReadText(const Bytes &file, const Request &request, Reading &reading) {
  if (request.size == 0) {
    reading.status = SM_STATUS_BAD_PARAMETER;
    return;
  }
  if (!file) {
    reading.status = SM_STATUS_NOT_FOUND;
    return;
  }
  const std::vector<std::string> pieces = PiecesOf(*file);
  if (!request.section || !request.key) {
    if (request.size < 2) {
      reading.status = SM_STATUS_BAD_PARAMETER;
      return;
    }
    Put(reading.buffer, 0, "\0\0"s);
    if (!request.section) {
      ReadSections(pieces, reading);
    } else {
      ReadKeys(pieces, *request.section, reading);
    }
    return;
  }
  ReadOneValue(pieces, request, reading);
  if (reading.status == SM_STATUS_SUCCESS || reading.status == SM_STATUS_BUFFER_TOO_SMALL) return;
  const u32 size = request.defaultBytes ? std::min(request.size, request.dSize) : 0;
  if (size > 0) Put(reading.buffer, 0, request.defaultBytes->substr(0, size));
  reading.buffer[size > 0 ? size - 1 : 0] = 0;
  reading.size = size;
}

template <class T>
std::string BytesOf(T value) {
  return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

// A decimal number of 64 bits: white space, a sign, digits, without a look at what does not fit.
std::optional<u64> WideNumber(const std::string &text, bool isSigned) {
  const char *p = text.c_str();
  while (std::isspace(static_cast<unsigned char>(*p)) != 0) ++p;
  const char sign = *p;
  if (sign == '+' || sign == '-') ++p;
  if (std::isdigit(static_cast<unsigned char>(*p)) == 0) return std::nullopt;
  u64 value = 0;
  for (; std::isdigit(static_cast<unsigned char>(*p)) != 0; ++p) value = value * 10 + static_cast<u64>(*p - '0');
  if (sign != '-') return value;
  return isSigned ? 0 - value : 0;
}

// The value of a number type as bytes; nothing for a text that is none.
Bytes NumberBytes(u32 type, const std::string &text) {
  switch (type) {
    case ZEBCS_INI_BOOLN: {
      std::string word = text.substr(std::min(text.find_first_not_of(' '), text.size()));
      word = word.substr(0, word.find(' '));
      if (strcasecmp(word.c_str(), "TRUE") == 0) return BytesOf(booln{1});
      if (strcasecmp(word.c_str(), "FALSE") == 0) return BytesOf(booln{0});
      return std::nullopt;
    }
    case ZEBCS_INI_U32: {
      unsigned long value = 0;
      if (std::sscanf(text.c_str(), "%lu", &value) != 1) return std::nullopt;
      return BytesOf(static_cast<u32>(value));
    }
    case ZEBCS_INI_S32: {
      long value = 0;
      if (std::sscanf(text.c_str(), "%ld", &value) != 1) return std::nullopt;
      return BytesOf(static_cast<s32>(value));
    }
    case ZEBCS_INI_D64: {
      char *end = nullptr;
      const d64 value = std::strtod(text.c_str(), &end);
      if (end == text.c_str()) return std::nullopt;
      return BytesOf(value);
    }
    default: {
      const std::optional<u64> value = WideNumber(text, type == ZEBCS_INI_S64);
      if (!value) return std::nullopt;
      return BytesOf(*value);
    }
  }
}

// Lists of bytes are split as strtok does it: any number of commas is one.
std::vector<std::string> Tokens(const std::string &text) {
  std::vector<std::string> tokens;
  std::string token;
  for (const char c : text + ',') {
    if (c != ',') {
      token += c;
    } else if (!token.empty()) {
      tokens.push_back(token);
      token.clear();
    }
  }
  return tokens;
}

s32 ReadBytes(const std::string &text, Reading &reading) {
  const size_t room = reading.size;
  size_t count = 0;
  for (const std::string &token : Tokens(text)) {
    unsigned value = 0;
    if (std::sscanf(token.c_str(), "%x", &value) != 1) break;
    if (value > 255) return SM_STATUS_BAD_SIZE;
    if (count < room) reading.buffer[count] = static_cast<char>(value);
    ++count;
  }
  reading.size = static_cast<u32>(count);
  return count <= room ? SM_STATUS_SUCCESS : SM_STATUS_BUFFER_TOO_SMALL;
}

// The text that a typed reader converts.
Reading ReadForType(const Bytes &file, const Request &request, size_t room) {
  Reading text{0, static_cast<u32>(room), std::string(room + 1, '\0')};
  ReadText(file, {.type = ZEBCS_INI_ASTRING, .section = request.section, .key = request.key, .size = text.size}, text);
  return text;
}

void ReadBinary(const Bytes &file, const Request &request, Reading &reading) {
  const Reading text = ReadForType(file, request, kBinaryRoom);
  reading.status = text.status;
  if (text.status == SM_STATUS_BUFFER_TOO_SMALL) {
    reading.size = 0;
    return;
  }
  if (text.status == SM_STATUS_SUCCESS) {
    reading.status = ReadBytes(UpToZero(text.buffer), reading);
    if (reading.status != SM_STATUS_BAD_SIZE) return;
  }
  reading.size = request.defaultBytes ? std::min(request.dSize, request.size) : 0;
  if (reading.size > 0) Put(reading.buffer, 0, request.defaultBytes->substr(0, reading.size));
}

void ReadNumber(const Bytes &file, const Request &request, Reading &reading) {
  const size_t width = WidthOf(request.type);
  const Reading text = ReadForType(file, request, kTextRoom);
  const bool hasDefault = request.defaultBytes && request.dSize >= width;
  reading.status = text.status;
  if (text.status == SM_STATUS_SUCCESS) {
    const Bytes value = NumberBytes(request.type, UpToZero(text.buffer));
    if (value || request.type != ZEBCS_INI_BOOLN) {
      const std::string zero(width, '\0');
      Put(reading.buffer, 0, value ? *value : hasDefault ? request.defaultBytes->substr(0, width) : zero);
      return;
    }
    reading.status = SM_STATUS_BAD_SIZE;
  }
  if (hasDefault) Put(reading.buffer, 0, request.defaultBytes->substr(0, width));
  reading.size = hasDefault ? static_cast<u32>(width) : 0;
}

Reading ModelRead(const Bytes &file, const Request &request, const std::string &buffer) {
  Reading reading{0, request.size, buffer};
  if (request.size < WidthOf(request.type)) {
    reading.status = SM_STATUS_BAD_PARAMETER;
  } else if (request.type == ZEBCS_INI_ASTRING) {
    ReadText(file, request, reading);
  } else if (request.type == ZEBCS_INI_USTRING && request.defaultBytes &&
             request.dSize != request.defaultBytes->size()) {
    reading.status = SM_STATUS_BAD_PARAMETER;
  } else if (IsNumber(request.type)) {
    ReadNumber(file, request, reading);
  } else {
    ReadBinary(file, request, reading);
  }
  return reading;
}

struct Change {
  u32 type = 0;
  std::string section;
  std::string key;
  Bytes bytes = std::nullopt;
  u32 vSize = 0;
};

template <class T>
T ValueOf(const std::string &bytes) {
  T value;
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

std::string HexadecimalText(const std::string &bytes) {
  std::string text;
  for (const char c : bytes) {
    char token[8];
    std::snprintf(token, sizeof token, "0x%02X,", static_cast<unsigned>(static_cast<unsigned char>(c)));
    text += token;
  }
  text.pop_back();
  return text;
}

// The text of a value; nothing for one that is refused.
Bytes TextOf(const Change &change) {
  const std::string &bytes = *change.bytes;
  switch (change.type) {
    case ZEBCS_INI_ASTRING:
      if (change.vSize >= 8194 || change.vSize != bytes.size()) return std::nullopt;
      return bytes.substr(0, bytes.size() - 1);
    case ZEBCS_INI_USTRING:
      if (change.vSize >= 2049 || change.vSize != bytes.size()) return std::nullopt;
      break;
    case ZEBCS_INI_BINARY:
      if (change.vSize < 1 || change.vSize > 2048) return std::nullopt;
      break;
    default:
      if (change.vSize < WidthOf(change.type)) return std::nullopt;
      break;
  }
  std::string text;
  char decimals[400];
  switch (change.type) {
    case ZEBCS_INI_BOOLN: return ValueOf<booln>(bytes) == 1 ? "TRUE" : "FALSE";
    case ZEBCS_INI_U32: return std::to_string(ValueOf<u32>(bytes));
    case ZEBCS_INI_S32: return std::to_string(ValueOf<s32>(bytes));
    case ZEBCS_INI_U64: return std::to_string(ValueOf<u64>(bytes));
    case ZEBCS_INI_S64: return std::to_string(ValueOf<s64>(bytes));
    case ZEBCS_INI_D64:
      std::snprintf(decimals, sizeof decimals, "%.8f", ValueOf<d64>(bytes));
      if (std::strlen(decimals) > 95) return std::nullopt;
      return decimals;
    default:
      text = HexadecimalText(bytes.substr(0, change.vSize));
      if (text.size() >= 8192) return std::nullopt;
      return text;
  }
}

// What there is on the disk.
struct Disk {
  Bytes file;
  Bytes temporary;
  mode_t mode = 0;  // of the file
  bool operator==(const Disk &) const = default;
};

s32 Append(Disk &disk, const Change &change, const Bytes &text) {
  if (!text) return SM_STATUS_BAD_SIZE;
  disk.file = disk.file.value_or("") + '[' + change.section + "]\n" + change.key + '=' + *text + '\n';
  disk.mode = kWrittenMode;
  return SM_STATUS_SUCCESS;
}

// Edits the pieces from the first one of the section on.
void Edit(std::vector<std::string> &pieces, size_t first, const std::string &key, const Bytes &text) {
  const Bytes newLine = text ? Bytes(key + '=' + *text + '\n') : text;
  for (size_t i = first; i < pieces.size(); ++i) {
    const auto here = pieces.begin() + static_cast<std::ptrdiff_t>(i);
    const Line line = LineOf(pieces[i]);
    if (line.isHeader) {
      if (newLine) pieces.insert(here, *newLine);
      return;
    }
    if (line.isComment || line.name != key) continue;
    if (newLine) {
      *here = *newLine;
    } else {
      pieces.erase(here);
    }
    return;
  }
  pieces.push_back(newLine.value_or(key + "=(null)\n"));
}

s32 ModelWrite(Disk &disk, const Change &change) {
  if (change.section.size() > 255 || change.key.size() > 255) {
    // The typed writers look at the size of the value before they come to the names.
    const bool isSizeBad = change.bytes ? !TextOf(change) : change.vSize != 0;
    return isSizeBad && change.type != ZEBCS_INI_ASTRING ? SM_STATUS_BAD_SIZE : SM_STATUS_BAD_PARAMETER;
  }
  if (!change.bytes && change.vSize != 0) return SM_STATUS_BAD_SIZE;
  const Bytes text = change.bytes ? TextOf(change) : std::nullopt;
  if (change.bytes && !text) return SM_STATUS_BAD_SIZE;
  if (!disk.file) return Append(disk, change, text);
  std::vector<std::string> pieces = PiecesOf(*disk.file);
  const Found found = FindSection(pieces, change.section);
  if (found.status == SM_STATUS_PARSE_ERROR) {
    pieces.resize(found.next);
    disk.temporary = Joined(pieces);
    return found.status;
  }
  disk.temporary.reset();
  if (found.status == SM_STATUS_SECTION_NOT_FOUND) return Append(disk, change, text);
  Edit(pieces, found.next, change.key, text);
  disk.file = Joined(pieces);
  disk.mode = kWrittenMode;
  return SM_STATUS_SUCCESS;
}

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
        const Reading expected = ModelRead(model.file, request, before);
        ASSERT_TRUE(got == expected) << where << Shown(request) << "\nexpected " << Shown(expected) << "\ngot "
                                     << Shown(got) << '\n'
                                     << Shown(model);
      } else {
        const Change change = RandomChange(dice);
        last = change;
        const Disk before = model;
        const s32 expected = ModelWrite(model, change);
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
