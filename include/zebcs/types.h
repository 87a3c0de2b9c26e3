/* Basic types and status codes of the common-services library.
 *
 * Every other public header includes this one. All of them are valid C11 and C++20.
 *
 * Text comes in two forms. `astring` text is UTF-8 and ends with a zero byte. `ustring` text is UTF-16 in host
 * byte order and ends with a zero unit; one `ustring` is one 16-bit code unit, not one character. */
#ifndef ZEBCS_TYPES_H
#define ZEBCS_TYPES_H

#include <stdint.h>

/* Marks what the library exports; everything else is hidden. */
#define ZEBCS_API __attribute__((visibility("default")))

typedef uint8_t u8;       /* unsigned, 8 bits: bytes */
typedef int8_t s8;        /* signed, 8 bits */
typedef uint16_t u16;     /* unsigned, 16 bits */
typedef int16_t s16;      /* signed, 16 bits */
typedef uint32_t u32;     /* unsigned, 32 bits: sizes, counts, identifiers */
typedef int32_t s32;      /* signed, 32 bits: status codes */
typedef uint64_t u64;     /* unsigned, 64 bits */
typedef int64_t s64;      /* signed, 64 bits */
typedef double d64;       /* floating point, 64 bits */
typedef int16_t booln;    /* 0 false, 1 true */
typedef uint8_t BOOL;     /* only in the few platform-facing calls that use it */
typedef char astring;     /* narrow text, UTF-8 */
typedef uint16_t ustring; /* one UTF-16 code unit */

/* Status codes. A function that returns a status returns one of these as s32; the values never change. Some
 * predicates and parsers answer "no" with a plain -1, which has no name. */
#define SM_STATUS_SUCCESS 0                /* success */
#define SM_STATUS_BAD_PARAMETER 2          /* a required pointer is NULL or a required string is empty */
#define SM_STATUS_NOT_FOUND 7              /* the requested item does not exist */
#define SM_STATUS_LOCK_TIMEOUT 11          /* the process-wide file lock could not be taken */
#define SM_STATUS_INSUFFICIENT_BUFFER 15   /* no or too small a destination for a text replacement; size stored */
#define SM_STATUS_BUFFER_TOO_SMALL 16      /* the caller's buffer is too small */
#define SM_STATUS_NOT_LOADED 17            /* the IP support layer was not loaded at attach time */
#define SM_STATUS_WRITE_FAILED 19          /* writing to a file failed */
#define SM_STATUS_FAILED 256               /* generic failure */
#define SM_STATUS_BAD_DATA 257             /* malformed data, or an object in a state that forbids the operation */
#define SM_STATUS_RENAME_FAILED 258        /* renaming a file failed */
#define SM_STATUS_PATH_UNAVAILABLE 260     /* the product configuration directory could not be determined */
#define SM_STATUS_PARSE_ERROR 261          /* malformed INI line */
#define SM_STATUS_SECTION_NOT_FOUND 262    /* the INI file ended before the section was found */
#define SM_STATUS_KEY_NOT_FOUND 263        /* the INI section ended before the key was found */
#define SM_STATUS_BAD_SIZE 264             /* a value buffer's size does not fit the value's type */
#define SM_STATUS_DELETE_FAILED 270        /* deleting the file that was to be replaced failed */
#define SM_STATUS_INVALID_INPUT 271        /* an argument or a text is not valid for the operation */
#define SM_STATUS_NO_MEMORY 272            /* memory allocation failed */
#define SM_STATUS_NULL_ADDRESS 8216        /* an address-classifying function was given a NULL text */

#endif
