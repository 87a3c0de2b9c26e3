// Text of the locale and wide characters, for the role map.
#ifndef ZEBCS_SRC_LOCALE_TEXT_H
#define ZEBCS_SRC_LOCALE_TEXT_H

#include <optional>
#include <string>
#include <string_view>

// Lower case by the system's single-byte table; characters beyond it stay as they are.
wchar_t ToLower(wchar_t c);
std::wstring Lowered(std::wstring_view text);

// Text of the locale as wide characters; nothing when it is not valid there.
std::optional<std::wstring> Widened(const char *text);

// Wide characters as text of the locale; nothing when they cannot be written there, and nothing for a text with a
// zero in it, which would name somebody else.
std::optional<std::string> Narrowed(const std::wstring &text);

#endif
