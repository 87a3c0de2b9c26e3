// A model of the INI store that holds the file as lines, for the test and the fuzzer that set the store beside it.
//
// It is as plain as it can be: it takes the file as one text, splits it into pieces for every operation, and says what
// status, size, buffer, file and temporary file must come out.
#ifndef ZEBCS_TESTS_SUPPORT_INI_MODEL_H
#define ZEBCS_TESTS_SUPPORT_INI_MODEL_H

#include <strings.h>
#include <sys/types.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "zebcs/ini.h"

namespace ini_model {

using namespace std::string_literals;
using Bytes = std::optional<std::string>;

inline constexpr size_t kPiece = 8449;
inline constexpr size_t kTextRoom = 8193;    // of a typed reader, for the text of a value
inline constexpr size_t kBinaryRoom = 8451;  // likewise, for a list of bytes
inline constexpr mode_t kWrittenMode = 01664;

constexpr size_t WidthOf(u32 type) {
  constexpr size_t kWidths[] = {0, 1, 1, 1, 2, 4, 4, 8, 8, 8};
  return kWidths[type];
}

inline bool IsNumber(u32 type) { return type >= ZEBCS_INI_BOOLN; }

inline std::vector<std::string> PiecesOf(const std::string &text) {
  std::vector<std::string> pieces;
  for (size_t start = 0; start < text.size(); start += pieces.back().size()) {
    const size_t feed = text.find('\n', start);
    const size_t length = feed == std::string::npos ? kPiece : feed + 1 - start;
    pieces.push_back(text.substr(start, std::min(length, kPiece)));
  }
  return pieces;
}

inline std::string Joined(const std::vector<std::string> &pieces) {
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

inline Line LineOf(const std::string &piece) {
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
    const size_t bracket = piece.find(']', i);
    line.isMalformed = bracket == std::string::npos;
    line.name = piece.substr(i + 1, std::min(bracket, end) - i - 1);
    return line;
  }
  const size_t equals = piece.find('=', i);
  line.hasValue = equals != std::string::npos;
  line.name = piece.substr(i, std::min(equals, end) - i);
  if (line.hasValue) line.value = piece.substr(equals + 1, end - equals - 1);
  return line;
}

inline std::string UpToZero(const std::string &text) { return text.c_str(); }

// The number of the piece behind the first header of that name, or a status.
struct Found {
  s32 status;
  size_t next;
};

inline Found FindSection(const std::vector<std::string> &pieces, const std::string &section) {
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

inline void Put(std::string &buffer, size_t at, const std::string &bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) buffer.at(at + i) = bytes[i];
}

inline void ReadNames(const std::vector<std::string> &names, Reading &reading) {
  const size_t room = reading.size;
  size_t total = 0;
  for (const std::string &name : names) {
    total += name.size() + 1;
    if (total <= room) Put(reading.buffer, total - name.size() - 1, name + "\0\0"s);
  }
  reading.status = total <= room ? SM_STATUS_SUCCESS : SM_STATUS_BUFFER_TOO_SMALL;
  reading.size = static_cast<u32>(total);
}

inline void ReadSections(const std::vector<std::string> &pieces, Reading &reading) {
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

inline void ReadKeys(const std::vector<std::string> &pieces, const std::string &section, Reading &reading) {
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

inline void ReadOneValue(const std::vector<std::string> &pieces, const Request &request, Reading &reading) {
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

inline void ReadText(const Bytes &file, const Request &request, Reading &reading) {
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
inline std::string BytesOf(T value) {
  return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

// A decimal number of 64 bits: white space, a sign, digits, without a look at what does not fit.
inline std::optional<u64> WideNumber(const std::string &text, bool isSigned) {
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
inline Bytes NumberBytes(u32 type, const std::string &text) {
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
inline std::vector<std::string> Tokens(const std::string &text) {
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

inline s32 ReadBytes(const std::string &text, Reading &reading) {
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
inline Reading ReadForType(const Bytes &file, const Request &request, size_t room) {
  Reading text{0, static_cast<u32>(room), std::string(room + 1, '\0')};
  ReadText(file, {.type = ZEBCS_INI_ASTRING, .section = request.section, .key = request.key, .size = text.size}, text);
  return text;
}

inline void ReadBinary(const Bytes &file, const Request &request, Reading &reading) {
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

inline void ReadNumber(const Bytes &file, const Request &request, Reading &reading) {
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

inline Reading Read(const Bytes &file, const Request &request, const std::string &buffer) {
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

inline std::string HexadecimalText(const std::string &bytes) {
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
inline Bytes TextOf(const Change &change) {
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

inline s32 Append(Disk &disk, const Change &change, const Bytes &text) {
  if (!text) return SM_STATUS_BAD_SIZE;
  disk.file = disk.file.value_or("") + '[' + change.section + "]\n" + change.key + '=' + *text + '\n';
  disk.mode = kWrittenMode;
  return SM_STATUS_SUCCESS;
}

// Edits the pieces from the first one of the section on.
inline void Edit(std::vector<std::string> &pieces, size_t first, const std::string &key, const Bytes &text) {
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

inline s32 Write(Disk &disk, const Change &change) {
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

}  // namespace ini_model

#endif
