// The INI store beside the model of it, over files and operations that an input gives.
//
// An input is the number of operations, the operations and, up to its end, the file.
#include <vector>

#include "fuzz_file.h"
#include "ini_model.h"
#include "zebcs/ini.h"

namespace {

using namespace std::string_view_literals;
using ini_model::Bytes;
using ini_model::Change;
using ini_model::Disk;
using ini_model::IsNumber;
using ini_model::Reading;
using ini_model::Request;

constexpr std::string_view kWords[] = {
    "[s]\n", "\nk=", "k=", "[t]\n", "\n[s]", "\nl=",  "0x01,0xAB", "TRUE",
    " k=1",  "\r\n", "]",  ";",     "s",     "FALSE", "1e5",       "18446744073709551615"};
constexpr size_t kMostOperations = 8;
constexpr size_t kLongestText = 8200;  // some more than is accepted
constexpr size_t kMostBytes = 2060;    // likewise

struct Files {
  FuzzFile file{"a.ini"};
  FuzzFile temporary{"kcsini64.tmp"};

  void Set(const Disk &disk) const {
    file.Set(disk.file);
    temporary.Set(disk.temporary);
  }
  Disk Look() const { return {file.Content(), temporary.Content(), file.Mode()}; }
};

// A name that is likely to be in a file, a long one, or one of the input.
std::string TakeName(FuzzInput &input) {
  constexpr std::string_view kNames[] = {"s", "k", "t", "l", "", " s", ";k", "k=l"};
  const size_t index = input.Take<uint8_t>();
  if (index < std::size(kNames)) return std::string(kNames[index]);
  if (index < 16) return std::string(250 + index % 8, 'k');
  return input.TakeText();
}

Bytes MaybeName(FuzzInput &input, bool isGiven) { return isGiven ? Bytes(TakeName(input)) : std::nullopt; }

// 16-bit text with its terminator.
std::string WideText(std::string_view bytes) {
  std::string text(bytes.substr(0, bytes.size() / 2 * 2));
  for (size_t i = 0; i < text.size(); i += 2) {
    if (text[i] == 0 && text[i + 1] == 0) text[i] = 'x';
  }
  return text + std::string(2, '\0');
}

// At least as many bytes as a number has.
std::string NumberBytes(FuzzInput &input, u32 type) {
  std::string bytes(input.TakeBytes(ini_model::WidthOf(type)));
  bytes.resize(ini_model::WidthOf(type));
  return bytes;
}

u32 TakeType(FuzzInput &input) { return ZEBCS_INI_ASTRING + input.Take<uint8_t>() % u32{ZEBCS_INI_D64}; }

Request TakeRequest(FuzzInput &input, unsigned flags) {
  Request request;
  request.type = TakeType(input);
  request.section = MaybeName(input, (flags & 2) == 0);
  request.key = MaybeName(input, (flags & 4) == 0);
  request.size = input.Take<uint8_t>();
  if (request.size == 0xFF) request.size = input.Take<uint16_t>();
  if ((flags & 8) == 0) return request;
  if (IsNumber(request.type)) {
    request.defaultBytes = NumberBytes(input, request.type);
    request.dSize = input.Take<uint8_t>();
  } else {
    const std::string_view bytes = input.TakeBytes(input.Take<uint8_t>());
    request.defaultBytes = request.type == ZEBCS_INI_USTRING ? WideText(bytes) : std::string(bytes);
    request.dSize = static_cast<u32>(request.defaultBytes->size());
    if (request.dSize > 0 && (flags & 16) != 0) --request.dSize;
  }
  return request;
}

Change TakeChange(FuzzInput &input, unsigned flags) {
  Change change;
  change.type = TakeType(input);
  change.section = TakeName(input);
  change.key = TakeName(input);
  if ((flags & 2) == 0) {
    if (IsNumber(change.type)) {
      change.bytes = NumberBytes(input, change.type);
    } else if (change.type == ZEBCS_INI_ASTRING) {
      change.bytes = ini_model::UpToZero(Expanded(input.TakeText(), kWords, kLongestText)) + '\0';
    } else {
      const std::string bytes = Expanded(input.TakeBytes(input.Take<uint8_t>()), {}, kMostBytes);
      change.bytes = change.type == ZEBCS_INI_USTRING ? WideText(bytes) : bytes;
    }
    change.vSize = static_cast<u32>(change.bytes->size());
  }
  if ((flags & 4) != 0 && change.type != ZEBCS_INI_BINARY) ++change.vSize;
  if ((flags & 8) != 0 && change.vSize > 0) --change.vSize;
  return change;
}

const char *TextOf(const Bytes &name) { return name ? name->c_str() : nullptr; }

void ReadBoth(const Files &files, const Disk &model, const Request &request, booln canBlock) {
  // A list may end a byte behind the room; a number takes no more than its own bytes of it.
  const bool isList = request.type == ZEBCS_INI_ASTRING && (!request.section || !request.key);
  const size_t room = IsNumber(request.type) ? ini_model::WidthOf(request.type) : request.size + (isList ? 1 : 0);
  const ExactBytes value(room);
  const ExactBytes defaultBytes(request.defaultBytes.value_or(""));
  const Reading expected = ini_model::Read(model.file, request, value.Text());
  u32 size = request.size;
  const s32 status = KCSReadINIPathFileValue(
      TextOf(request.section), TextOf(request.key), request.type, value.data<void>(), &size,
      request.defaultBytes ? defaultBytes.data<void>() : nullptr, request.dSize, files.file.path(), canBlock);
  FUZZ_CHECK(status == expected.status);
  FUZZ_CHECK(size == expected.size);
  FUZZ_CHECK(value.Text() == expected.buffer);
}

void WriteBoth(const Files &files, Disk &model, const Change &change, booln canBlock) {
  const ExactBytes value(change.bytes.value_or(""));
  const s32 expected = ini_model::Write(model, change);
  const s32 status =
      KCSWriteINIPathFileValue(change.section.c_str(), change.key.c_str(), change.type,
                               change.bytes ? value.data<void>() : nullptr, change.vSize, files.file.path(), canBlock);
  FUZZ_CHECK(status == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const Files files;
  struct Operation {
    bool isWrite;
    booln canBlock;  // nobody else has the lock, so that trying once is enough
    Request request;
    Change change;
  };
  FuzzInput input(data, size);
  const unsigned start = input.Take<uint8_t>();
  std::vector<Operation> operations(1 + start % kMostOperations);
  for (Operation &operation : operations) {
    const unsigned flags = input.Take<uint8_t>();
    operation.isWrite = (flags & 1) != 0;
    operation.canBlock = static_cast<booln>(flags >> 6);
    if (operation.isWrite) {
      operation.change = TakeChange(input, flags);
    } else {
      operation.request = TakeRequest(input, flags);
    }
  }
  Disk model;
  if (start < 0xF0) model.file = Expanded(input.TakeRest(), kWords);
  if ((start & 0x10) != 0) model.temporary = "old";
  model.mode = model.file ? kFuzzFileMode : 0;

  files.Set(model);
  for (const Operation &operation : operations) {
    if (operation.isWrite) {
      WriteBoth(files, model, operation.change, operation.canBlock);
    } else {
      ReadBoth(files, model, operation.request, operation.canBlock);
    }
    FUZZ_CHECK(files.Look() == model);
  }
  return 0;
}
