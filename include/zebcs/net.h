/* Host name, IP addresses and password digests.
 *
 * Functions that need the IP support answer SM_STATUS_NOT_LOADED until the library has attached (see frame.h).
 *
 * Threads: every function may run on any thread once the library has attached. */
#ifndef ZEBCS_NET_H
#define ZEBCS_NET_H

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The sizes of the digests in bytes. */
#define ZEBCS_MD5_SIZE 16
#define ZEBCS_SHA256_SIZE 32

/* One address as text: at most 64 characters and a terminator. */
typedef struct KCSIPAddrStr {
  astring az[65]; /* the text */
} KCSIPAddrStr;

/* The machine's IP protocol support. */
typedef enum Proto_Type { NONE = 0, IPv4 = 1, IPv6 = 2, BOTH = 3 } Proto_Type;

/* Copies the host name.
 *
 * pSize    in: room in bytes; out: length + 1.
 * Returns  0; SM_STATUS_NOT_LOADED; SM_STATUS_BAD_PARAMETER for a NULL argument. A name that does not fit gives 0
 *          too: the room then holds as much of it as fits, terminated, and *pSize keeps its value. */
ZEBCS_API s32 KCSGetIPHostName(astring *pName, u32 *pSize);

/* The same as UTF-16, under the size rules of KCSUTF8StrToUCS2Str. */
ZEBCS_API s32 KCSUniGetIPHostName(ustring *pName, u32 *pSize);

/* Lists this machine's addresses, in the system's order: those of running interfaces that are neither loopback nor
 * point-to-point, IPv4 and IPv6.
 *
 * pHostName  not used.
 * pCount     in: slots in pList; out: addresses there are.
 * pList      NULL only counts.
 * Returns    0; SM_STATUS_BUFFER_TOO_SMALL when there are more addresses than slots, which are then all filled;
 *            SM_STATUS_BAD_PARAMETER when pCount is NULL; -1 when the system does not tell. */
ZEBCS_API s32 KCSGetIPAddrStrList(const astring *pHostName, u32 *pCount, KCSIPAddrStr *pList);

/* Not supported: returns -1, or SM_STATUS_INVALID_INPUT when pSize is NULL. The doubled word is the exported name. */
ZEBCS_API s32 KCSGetDNSSuffixNameName(astring *pName, u32 *pSize);

/* Reads an address text into network byte order; text with a ":" is IPv6, any other IPv4.
 *
 * pSize    in: room in bytes; out: 16 or 4, also on SM_STATUS_BUFFER_TOO_SMALL.
 * Returns  0; SM_STATUS_NOT_LOADED; SM_STATUS_BAD_PARAMETER for a NULL argument; SM_STATUS_BUFFER_TOO_SMALL;
 *          -1 when the text is no address. */
ZEBCS_API s32 KCSIPAddrASCIIToNetwork(const astring *pText, u8 *pAddr, u32 *pSize);

/* Writes an address as text.
 *
 * addrSize  4 for IPv4, 16 for IPv6.
 * pSize     in: room in bytes; out: length + 1, also on SM_STATUS_BUFFER_TOO_SMALL. The last byte of the room is
 *           always set to zero.
 * Returns   0; SM_STATUS_NOT_LOADED; SM_STATUS_BAD_PARAMETER for a NULL argument or another addrSize;
 *           SM_STATUS_BUFFER_TOO_SMALL. */
ZEBCS_API s32 KCSIPAddrNetworkToASCII(const u8 *pAddr, u32 addrSize, astring *pText, u32 *pSize);

/* Compares two addresses by their bytes. Host names equal nothing, and an IPv4 address never equals an IPv6 one.
 *
 * Returns  1 equal; 0 not equal, or not two addresses; SM_STATUS_BAD_PARAMETER when either is NULL. */
ZEBCS_API s32 KCSCheckIPEqual(const astring *pAddr1, const astring *pAddr2);

/* Returns a new array of this machine's addresses, as KCSGetIPAddrStrList lists them, and their number in *pCount.
 * The caller releases it with SUPTFreeMem. NULL, and a count of 0, when the list cannot be had. */
ZEBCS_API KCSIPAddrStr *KCSHostGetHostIPAddrList(u32 *pCount);

/* Returns 1 if the text contains ":", else 0; SM_STATUS_NULL_ADDRESS for NULL. */
ZEBCS_API s32 KCSIsIPv6(const astring *pText);

/* Returns 1 if every character is a decimal digit or ".", which the empty text fulfils; else, and for NULL, 0. */
ZEBCS_API s32 KCSIsIPv4(const astring *pText);

/* Returns 0 if the text begins with "fe80" in any letter case, else -1; SM_STATUS_NULL_ADDRESS for NULL. */
ZEBCS_API s32 KCSIsLinkLocal(const astring *pText);

/* Tells which IP protocols the machine can open a TCP socket for. */
ZEBCS_API Proto_Type KCSGetSockType(void);

/* Returns the loopback address for what KCSGetSockType says: "::1" for IPv6 alone, NULL for none, else "127.0.0.1".
 * The text is constant. */
ZEBCS_API const astring *KCSGetLoopBack(void);

/* Digest a text, without its terminator, into raw bytes: 16 for MD5, 32 for SHA-256. All zeros, which is no digest of
 * a known text, stand for failure: a NULL text, or libcrypto out of memory. A NULL digest is ignored. */
ZEBCS_API void KCSMD5Hash(const astring *pText, u8 *pDigest);
ZEBCS_API void KCSSHA256Hash(const astring *pText, u8 *pDigest);

/* Digest a password followed by its salt, of any length, into raw bytes: 16 for MD5, 32 for SHA-256. All zeros stand
 * for failure as above. The password stays the caller's to wipe; the library leaves no copy of it.
 *
 * pSalt  hexadecimal text, two digits a byte; an odd last digit is not used. A character that is no digit counts as
 *        hexToDecimalConvert says. */
ZEBCS_API void KCSMD5HashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt);
ZEBCS_API void KCSSHA256HashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt);
ZEBCS_API void KCSEVPHashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt);

/* The same functions under their plain names. */
ZEBCS_API s32 GetIPHostName(astring *pName, u32 *pSize);
ZEBCS_API s32 UniGetIPHostName(ustring *pName, u32 *pSize);
ZEBCS_API s32 GetIPAddrStrList(const astring *pHostName, u32 *pCount, KCSIPAddrStr *pList);
ZEBCS_API s32 GetDNSSuffixName(astring *pName, u32 *pSize);
ZEBCS_API s32 IPAddrASCIIToNetwork(const astring *pText, u8 *pAddr, u32 *pSize);
ZEBCS_API s32 IPAddrNetworkToASCII(const u8 *pAddr, u32 addrSize, astring *pText, u32 *pSize);
ZEBCS_API s32 CheckIPEqual(const astring *pAddr1, const astring *pAddr2);
ZEBCS_API KCSIPAddrStr *SUPTIntfHostGetHostIPAddrList(u32 *pCount);
ZEBCS_API s32 IsIPv6(const astring *pText);
ZEBCS_API s32 IsIPv4(const astring *pText);
ZEBCS_API s32 IsLinkLocal(const astring *pText);
ZEBCS_API Proto_Type GetSockType(void);
ZEBCS_API const astring *GetLoopBack(void);
ZEBCS_API void MD5Hash(const astring *pText, u8 *pDigest);
ZEBCS_API void SHA256Hash(const astring *pText, u8 *pDigest);
ZEBCS_API void MD5HashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt);
ZEBCS_API void SHA256HashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt);
ZEBCS_API void EVPHashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt);

/* Returns the value of a hexadecimal digit; for any other character its code minus 48, cut to 8 bits. */
ZEBCS_API u8 hexToDecimalConvert(astring ch);

/* Mark the IP support loaded and not. Attaching and detaching call them.
 *
 * LoadIPSupt    returns 0; SM_STATUS_BAD_PARAMETER when it was loaded already.
 * UnLoadIPSupt  returns 0; SM_STATUS_BAD_PARAMETER when it was not loaded. The support stays loaded all the same. */
ZEBCS_API s32 LoadIPSupt(void);
ZEBCS_API s32 UnLoadIPSupt(void);

#ifdef __cplusplus
}
#endif

#endif
