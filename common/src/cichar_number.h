// Numbers as the C library's formatted input and output read and write them.
#ifndef ZEBCS_SRC_CICHAR_NUMBER_H
#define ZEBCS_SRC_CICHAR_NUMBER_H

#include <cstddef>
#include <optional>

#include "zebcs/types.h"

// Read the number in front of a text as formatted input reads "%ld" and "%lu" (base 10), "%o" (8), "%x" (16) and "%i"
// (0), into 64 bits, where it saturates. A conversion without the "l" keeps the low 32 bits of the same. Nothing comes
// back where formatted input would convert nothing.
std::optional<s64> ScanSigned(const astring *pStr, u32 base);
std::optional<u64> ScanUnSigned(const astring *pStr, u32 base);

// snprintf with "%.*f", its result included. The precision must not be negative.
int FormatFixed(astring *pDest, size_t room, d64 value, int precision);

#endif
