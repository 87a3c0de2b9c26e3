// The program's way out: what is printed either arrives as a whole or is known not to have.
#ifndef ZEBCTL_OUTPUT_H
#define ZEBCTL_OUTPUT_H

#include <string_view>

// Makes a reader that has gone away an error of writing, where it would otherwise end the program without a word.
// Returns whether standard output and standard error can be used; if only the former cannot, it has said so.
[[nodiscard]] bool PrepareOutput();

// Prints text as it is, to standard output and to standard error.
void Print(std::string_view text);
void Complain(std::string_view text);

// Closes standard output. Returns whether all that was printed, on either stream, has been taken; if not, it has said
// so where it could.
[[nodiscard]] bool FinishOutput();

#endif
