// Texts of a string resource file, and its lines, beside a plain reference.
//
// An input is what is asked for, the room that there is for it and, up to its end, the file.
#include <vector>

#include "fuzz_file.h"
#include "resource_reference.h"
#include "zebcs/product.h"

namespace {

using resource_reference::Delivered;
using resource_reference::kLongestLine;
using resource_reference::Line;
using resource_reference::Units;

constexpr u32 kLanguages[] = {0, 1, 0x407, 437, 1033, 0x10};
constexpr size_t kLargestForSmallRoom = 600;
constexpr u32 kTexts[] = {0x1F4, 0, 1, 0x11, 0xF4};

std::string BytesOf(const Units &units) {
  std::string bytes;
  for (const ustring unit : units) bytes += {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
  return bytes;
}

// Half a unit at the end is none.
Units UnitsOf(std::string_view bytes) {
  Units units(bytes.size() / sizeof(ustring));
  if (!units.empty()) std::memcpy(units.data(), bytes.data(), units.size() * sizeof(ustring));
  return units;
}

std::vector<std::string> MakeWords() {
  std::vector<std::string> words;
  for (const char *text : {"\r\n", "0:1F4=", "407:1F4=", "1:1=", "0:0=", "=", "\r", "\n", "x", "10:11=", "0:1=", ":"}) {
    words.push_back(BytesOf(resource_reference::U(text)));
  }
  return words;
}

// The text that stands in place of one from a file that cannot be used; null for one that can.
const char *MessageFor(const std::optional<std::string> &file) {
  if (!file) return "String resource not found";
  return file->starts_with("\xFF\xFE") ? nullptr : "Invalid string resource found";
}

std::vector<Units> PlainLines(const Units &units) {
  std::vector<Units> lines;
  for (size_t start = 0;;) {
    const Line line = resource_reference::PlainRead(units, start, kLongestLine);
    if (line.isNull) return lines;
    lines.push_back(resource_reference::Terminated(line.text));
    start += line.text.size();
  }
}

// --- Lines ----------------------------------------------------------------------------------------------------------

// Reads all lines of a file, whose bytes may end in half a unit.
void CheckLines(const char *path, const std::string &bytes, size_t room) {
  const Units units = UnitsOf(bytes);
  FILE *const file = std::fopen(path, "rbe");
  FUZZ_CHECK(file != nullptr);
  for (size_t start = 0;;) {
    const Line expected = resource_reference::PlainRead(units, start, room);
    const ExactBytes memory(room * sizeof(ustring));
    ustring *const line = memory.data<ustring>();
    const ustring *const result = dc_fgetws(line, static_cast<s32>(room), file);
    const long position = std::ftell(file);
    // Behind a single unit, half a one may be passed over with it.
    const bool passesHalf = expected.isNull && start < units.size() && bytes.size() % 2 != 0;
    FUZZ_CHECK(position == expected.position || (passesHalf && position == expected.position + 1));
    FUZZ_CHECK((result == nullptr) == expected.isNull);
    if (expected.isNull) break;
    FUZZ_CHECK(result == line);
    FUZZ_CHECK(std::equal(expected.text.begin(), expected.text.end(), line));
    FUZZ_CHECK(line[expected.text.size()] == 0);
    start += expected.text.size();
  }
  FUZZ_CHECK(std::fclose(file) == 0);
}

// --- Texts ----------------------------------------------------------------------------------------------------------

struct Question {
  u32 textId;
  std::optional<u32> languageId;
  u32 room;  // in bytes
  bool hasDestination;
  bool hasSize;
};

void CheckText(const char *path, const std::optional<std::string> &file, const Question &question) {
  u32 expectedLanguage = question.languageId.value_or(0);
  const char *const message = MessageFor(file);
  const Delivered text = message != nullptr ? resource_reference::U(message)
                                            : resource_reference::PlainAsk(PlainLines(UnitsOf(file->substr(2))),
                                                                           question.textId, expectedLanguage);

  const ExactBytes memory(question.room);
  std::string expectedBytes = memory.Text();
  u32 expected = 0;
  if (text) {
    const u32 needed = static_cast<u32>((text->size() + 1) * sizeof(ustring));
    if (question.hasDestination && question.hasSize && needed <= question.room) {
      expected = needed;
      expectedBytes.replace(0, needed, BytesOf(resource_reference::Terminated(*text)));
    }
    if (!question.hasDestination && !question.hasSize) expected = needed;
  }

  u32 languageId = question.languageId.value_or(0);
  u32 size = question.room;
  const u32 result = KCSGetUnicodeStringFromIDPathFile(question.textId, question.languageId ? &languageId : nullptr,
                                                       path, question.hasDestination ? memory.data<ustring>() : nullptr,
                                                       question.hasSize ? &size : nullptr);
  FUZZ_CHECK(result == expected);
  FUZZ_CHECK(size == (question.hasSize ? expected : question.room));
  FUZZ_CHECK(memory.Text() == expectedBytes);
  FUZZ_CHECK(!question.languageId || languageId == expectedLanguage);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const FuzzFile fuzzFile("text.res");
  static const std::vector<std::string> words = MakeWords();
  FuzzInput input(data, size);
  const unsigned start = input.Take<uint8_t>();
  const unsigned textIndex = input.Take<uint8_t>();
  const unsigned languageIndex = input.Take<uint8_t>();
  const unsigned smallRoom = input.Take<uint8_t>();
  const u32 textId = textIndex < std::size(kTexts) ? kTexts[textIndex] : input.Take<u32>();
  const u32 languageId = languageIndex < std::size(kLanguages) ? kLanguages[languageIndex] : input.Take<u32>();
  std::optional<std::string> file;
  if (start < 0xF0) {
    file = (start & 1) != 0 ? "" : "\xFF\xFE";
    const std::vector<std::string_view> views(words.begin(), words.end());
    *file += Expanded(input.TakeRest(), views);
  }

  fuzzFile.Set(file);
  const std::optional<u32> language = (start & 2) != 0 ? std::nullopt : std::optional(languageId);
  const u32 room = (start & 4) != 0 ? smallRoom : 4096;
  CheckText(fuzzFile.path(), file, {textId, language, room, (start & 8) == 0, (start & 16) == 0});
  // A line is as long as its room at most, so that a small one makes many of them.
  if (file && file->size() < kLargestForSmallRoom) CheckLines(fuzzFile.path(), *file, 1 + smallRoom);
  if (file) CheckLines(fuzzFile.path(), *file, kLongestLine);
  return 0;
}
