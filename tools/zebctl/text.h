// Text in and out of the program: the locale's encoding on the command line and the terminal, UTF-8 in JSON.
#ifndef ZEBCTL_TEXT_H
#define ZEBCTL_TEXT_H

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// An argument that cannot be used; what() is a sentence for the user.
struct BadArgument : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Takes the locale from the environment, for the C library and for streams; without a usable one, the "C" locale.
// Numbers of the C library keep their point, whatever the locale: the library writes them into files with it.
void UseLocaleOfEnvironment();

// An argument as wide characters. Throws BadArgument for bytes that are not valid in the locale.
std::wstring Widen(const std::string &argument, const char *what);

// A name for a terminal, in the locale's encoding. Control characters, characters that cannot be seen or that change
// the direction of the text, and characters that the locale does not have are written as \uXXXX or \UXXXXXXXX and a
// backslash as two, so that no name can command a terminal or rearrange the line it stands in.
std::string ForTerminal(std::wstring_view name);

// A text for a line of a terminal: likewise, but spaces within it stay.
std::string LineForTerminal(std::wstring_view text);

// Text of a file as wide characters. Bytes that are not UTF-8 become U+DC80 to U+DCFF, which no UTF-8 text has.
std::wstring FromUTF8(std::string_view bytes);

// A name or text as UTF-8; surrogates become U+FFFD.
std::string ForJSON(std::wstring_view name);

// The lines of a table with its columns aligned; the first line is the heading.
std::string Table(const std::vector<std::vector<std::string>> &rows);

#endif
