#include "locale_text.h"

#include <cctype>
#include <cwchar>

namespace {

// As std::tolower, which the C++ library's header keeps from being inlined.
wchar_t ToLowerBy(const int *table, wchar_t c) { return c >= 0 && c <= 0xFF ? static_cast<wchar_t>(table[c]) : c; }

}  // namespace

wchar_t ToLower(wchar_t c) { return ToLowerBy(*__ctype_tolower_loc(), c); }

std::wstring Lowered(std::wstring_view text) {
  const int *const table = *__ctype_tolower_loc();
  std::wstring lowered(text);
  for (wchar_t &c : lowered) c = ToLowerBy(table, c);
  return lowered;
}

std::optional<std::wstring> Widened(const char *text) {
  std::mbstate_t state{};
  const char *p = text;
  const size_t length = std::mbsrtowcs(nullptr, &p, 0, &state);
  if (length == static_cast<size_t>(-1)) return std::nullopt;
  std::wstring wide(length, L'\0');
  state = {};
  p = text;
  std::mbsrtowcs(wide.data(), &p, length, &state);
  return wide;
}

std::optional<std::string> Narrowed(const std::wstring &text) {
  if (text.find(L'\0') != std::wstring::npos) return std::nullopt;
  std::mbstate_t state{};
  const wchar_t *p = text.c_str();
  const size_t length = std::wcsrtombs(nullptr, &p, 0, &state);
  if (length == static_cast<size_t>(-1)) return std::nullopt;
  std::string narrow(length, '\0');
  state = {};
  p = text.c_str();
  std::wcsrtombs(narrow.data(), &p, length, &state);
  return narrow;
}
