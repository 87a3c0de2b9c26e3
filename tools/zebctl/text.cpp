#include "text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <locale>

void UseLocaleOfEnvironment() {
  try {
    std::locale::global(std::locale(""));
  } catch (const std::runtime_error &) {
    // The environment names a locale that is not installed: go on as in "C".
  }
  std::setlocale(LC_NUMERIC, "C");
}

std::wstring Widen(const std::string &argument, const char *what) {
  std::mbstate_t state{};
  const char *p = argument.c_str();
  const size_t length = std::mbsrtowcs(nullptr, &p, 0, &state);
  if (length == static_cast<size_t>(-1)) {
    throw BadArgument(std::string(what) +
                      " is not valid text in this locale. Check the variables LC_ALL, LC_CTYPE and LANG.");
  }
  std::wstring wide(length, L'\0');
  state = {};
  p = argument.c_str();
  std::mbsrtowcs(wide.data(), &p, length, &state);
  return wide;
}

namespace {

struct Range {
  wchar_t first;
  wchar_t last;
};

// Characters that count as printable, although they are blank, invisible or turn the text around.
constexpr std::array<Range, 10> kUnseen = {{{0xA0, 0xA0},
                                            {0xAD, 0xAD},
                                            {0x61C, 0x61C},
                                            {0x180E, 0x180E},
                                            {0x2007, 0x2007},
                                            {0x200B, 0x200F},
                                            {0x202A, 0x202F},
                                            {0x2060, 0x206F},
                                            {0xFEFF, 0xFEFF},
                                            {0xE0000, 0xE007F}}};

bool IsSeen(wchar_t c) {
  return std::iswgraph(static_cast<std::wint_t>(c)) != 0 &&
         std::none_of(kUnseen.begin(), kUnseen.end(), [c](Range r) { return c >= r.first && c <= r.last; });
}

}  // namespace

std::string ForTerminal(std::wstring_view name) {
  std::string text;
  for (const wchar_t c : name) {
    char bytes[MB_LEN_MAX];
    std::mbstate_t state{};
    const size_t length = std::wcrtomb(bytes, c, &state);
    if (c == L'\\') {
      text += "\\\\";
    } else if (length != static_cast<size_t>(-1) && IsSeen(c)) {
      text.append(bytes, length);
    } else {
      char escape[16];
      const auto code = static_cast<unsigned>(c);
      std::snprintf(escape, sizeof escape, code > 0xFFFF ? "\\U%08x" : "\\u%04x", code);
      text += escape;
    }
  }
  return text;
}

std::string LineForTerminal(std::wstring_view text) {
  std::string line;
  for (size_t i = 0; i < text.size(); ++i) {
    // At either end a space would go unnoticed.
    const bool isInside = i > 0 && i + 1 < text.size();
    line += text[i] == L' ' && isInside ? " " : ForTerminal(text.substr(i, 1));
  }
  return line;
}

namespace {

// The length of the UTF-8 sequence that a text begins with, and its code point; 0 if it does not begin with one.
size_t DecodeUTF8(std::string_view bytes, wchar_t &c) {
  constexpr unsigned kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const auto lead = static_cast<unsigned char>(bytes.front());
  const auto ones = static_cast<size_t>(std::countl_one(lead));
  const size_t length = ones == 0 ? 1 : ones;
  if (ones == 1 || length > 4 || length > bytes.size()) return 0;
  unsigned code = lead & (0xFFU >> (ones + 1));
  for (size_t i = 1; i < length; ++i) {
    const unsigned next = static_cast<unsigned char>(bytes[i]);
    if ((next & 0xC0U) != 0x80) return 0;
    code = code << 6 | (next & 0x3FU);
  }
  if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  c = static_cast<wchar_t>(code);
  return length;
}

}  // namespace

std::wstring FromUTF8(std::string_view bytes) {
  std::wstring text;
  while (!bytes.empty()) {
    wchar_t c = 0;
    const size_t length = DecodeUTF8(bytes, c);
    text += length > 0 ? c : static_cast<wchar_t>(0xDC00 + static_cast<unsigned char>(bytes.front()));
    bytes.remove_prefix(std::max<size_t>(length, 1));
  }
  return text;
}

std::string ForJSON(std::wstring_view name) {
  constexpr unsigned kReplacement = 0xFFFD;
  std::string text;
  for (const wchar_t wide : name) {
    unsigned c = static_cast<unsigned>(wide);
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = kReplacement;
    if (c < 0x80) {
      text += static_cast<char>(c);
    } else if (c < 0x800) {
      text += static_cast<char>(0xC0 | c >> 6);
      text += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      text += static_cast<char>(0xE0 | c >> 12);
      text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      text += static_cast<char>(0xF0 | c >> 18);
      text += static_cast<char>(0x80 | (c >> 12 & 0x3F));
      text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return text;
}

namespace {

// Columns that the text takes on a terminal.
size_t WidthOf(const std::string &text) {
  std::mbstate_t state{};
  const char *p = text.c_str();
  const size_t length = std::mbsrtowcs(nullptr, &p, 0, &state);
  if (length == static_cast<size_t>(-1)) return text.size();
  std::wstring wide(length, L'\0');
  state = {};
  p = text.c_str();
  std::mbsrtowcs(wide.data(), &p, length, &state);
  const int width = wcswidth(wide.data(), length);
  return width < 0 ? length : static_cast<size_t>(width);
}

}  // namespace

std::string Table(const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> widths;
  for (const auto &row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], WidthOf(row[i]));
  }
  std::string text;
  for (const auto &row : rows) {
    for (size_t i = 0; i < row.size(); ++i) {
      text += row[i];
      if (i + 1 < row.size()) text.append(widths[i] - WidthOf(row[i]) + 2, ' ');
    }
    text += '\n';
  }
  return text;
}
