// String resource files, read slowly and plainly, for the test and the fuzzer that set the library beside it.
#ifndef ZEBCS_TESTS_SUPPORT_RESOURCE_REFERENCE_H
#define ZEBCS_TESTS_SUPPORT_RESOURCE_REFERENCE_H

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zebcs/types.h"

namespace resource_reference {

using Units = std::vector<ustring>;

inline constexpr ustring kCR = '\r';
inline constexpr ustring kLF = '\n';
inline constexpr size_t kLongestLine = 1024;  // read as one

// One unit for each character.
inline Units U(std::string_view text) {
  Units units;
  for (const char c : text) units.push_back(static_cast<unsigned char>(c));
  return units;
}

inline Units Terminated(Units units) {
  units.push_back(0);
  return units;
}

inline std::string Key(u32 languageId, u32 textId) {
  char key[20];
  (void)std::snprintf(key, sizeof key, "%X:%X=", languageId, textId);
  return key;
}

// What a call delivered; no text where it delivered nothing.
using Delivered = std::optional<Units>;

struct Line {
  bool isNull = false;
  Units text{};       // with its line end, without the terminator
  long position = 0;  // of the file then, in bytes
  bool operator==(const Line &) const = default;
};

inline Line NoLine(long position) { return {.isNull = true, .text = {}, .position = position}; }

// The line at a position of a file, in units, read with some room.
inline Line PlainRead(const Units &file, size_t start, size_t room) {
  const Units window(file.begin() + static_cast<ptrdiff_t>(start),
                     file.begin() + static_cast<ptrdiff_t>(std::min(file.size(), start + room)));
  const auto position = [start](size_t index) { return static_cast<long>((start + index) * sizeof(ustring)); };
  if (window.empty()) return NoLine(position(0));
  if (window.size() == 1) return NoLine(position(1));
  size_t length = window.size() - 1;
  for (size_t i = 0; i + 1 < window.size(); ++i) {
    if (window[i] != kCR || window[i + 1] != kLF) continue;
    const size_t feed = i + 1;
    length = feed >= room - 1 ? feed : feed + 1;
    break;
  }
  return {.text = Units(window.begin(), window.begin() + static_cast<ptrdiff_t>(length)), .position = position(length)};
}

// The text of an entry's line, which is terminated.
inline Delivered PlainTextOf(const ustring *line) {
  if (*line == 0 || *line == kCR || *line == kLF) return std::nullopt;
  Units text;
  for (; *line != 0 && *line != kCR && *line != kLF; ++line) text.push_back(*line);
  const auto last = std::find(text.rbegin(), text.rend(), ustring{'='});
  if (last == text.rend()) return std::nullopt;
  return Units(last.base(), text.end());
}

// Looks a text up in the lines of a file, which are terminated. `languageId` is the language asked for, and the one
// told.
inline Delivered PlainAsk(const std::vector<Units> &lines, u32 textId, u32 &languageId) {
  if (languageId == 437 || languageId == 1033) languageId = 0;
  for (;;) {
    const Units key = U(Key(languageId, textId));
    for (const Units &line : lines) {
      const auto end = std::find(line.begin(), line.end(), ustring{0});
      if (std::search(line.begin(), end, key.begin(), key.end()) != end) return PlainTextOf(line.data());
    }
    if (languageId == 0) return std::nullopt;
    languageId = 0;
  }
}

}  // namespace resource_reference

#endif
