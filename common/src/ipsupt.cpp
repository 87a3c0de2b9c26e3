// The host's name and addresses, address text, and password digests. The only unit that includes libcrypto.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

// MD5_Init and its kin are marked deprecated by libcrypto; the digests they make are what callers have stored.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/sha.h>

#include "owners.h"
#include "zebcs/encoding.h"
#include "zebcs/net.h"
#include "zebcs/product.h"

namespace {

bool ipsuptLoaded = false;

constexpr u32 kIPv4Size = 4;
constexpr u32 kIPv6Size = 16;
constexpr u32 kHostNameSize = 64;

struct InterfaceListDeleter {
  void operator()(ifaddrs *list) const { freeifaddrs(list); }
};
using InterfaceList = std::unique_ptr<ifaddrs, InterfaceListDeleter>;

// Renders an interface's address if it is one that the machine is reached at.
bool RenderOwnAddress(const ifaddrs &interface, KCSIPAddrStr &text) {
  if (interface.ifa_addr == nullptr) return false;
  if ((interface.ifa_flags & (IFF_LOOPBACK | IFF_POINTOPOINT)) != 0) return false;
  if ((interface.ifa_flags & IFF_RUNNING) == 0) return false;
  const int family = interface.ifa_addr->sa_family;
  if (family != AF_INET && family != AF_INET6) return false;
  // The family says which of the two the address is.
  const void *const address =
      family == AF_INET
          ? static_cast<const void *>(&reinterpret_cast<const sockaddr_in *>(interface.ifa_addr)->sin_addr)
          : static_cast<const void *>(&reinterpret_cast<const sockaddr_in6 *>(interface.ifa_addr)->sin6_addr);
  return inet_ntop(family, address, text.az, sizeof text.az) != nullptr;
}

bool CanOpenStream(int family) {
  const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (fd == -1) return false;
  (void)close(fd);  // it carried nothing
  return true;
}

}  // namespace

s32 LoadIPSupt(void) {
  if (ipsuptLoaded) return SM_STATUS_BAD_PARAMETER;
  ipsuptLoaded = true;
  return SM_STATUS_SUCCESS;
}

// Kept: the flag stays set; one would expect unloading to clear it.
s32 UnLoadIPSupt(void) { return ipsuptLoaded ? SM_STATUS_SUCCESS : SM_STATUS_BAD_PARAMETER; }

s32 GetIPHostName(astring *pName, u32 *pSize) {
  if (!ipsuptLoaded) return SM_STATUS_NOT_LOADED;
  if (pName == nullptr || pSize == nullptr) return SM_STATUS_BAD_PARAMETER;
  if (gethostname(pName, *pSize) != 0) {
    // Kept: a name that does not fit, or is not to be had, is no failure. Callers read the buffer all the same, so it is
    // terminated.
    if (*pSize > 0) pName[errno == ENAMETOOLONG ? *pSize - 1 : 0] = '\0';
    return SM_STATUS_SUCCESS;
  }
  *pSize = static_cast<u32>(std::strlen(pName) + 1);
  return SM_STATUS_SUCCESS;
}

s32 UniGetIPHostName(ustring *pName, u32 *pSize) {
  astring name[128] = {};
  u32 size = sizeof name;
  if (const s32 status = GetIPHostName(name, &size); status != SM_STATUS_SUCCESS) return status;
  return UTF8StrToUCS2Str(pName, pSize, name);
}

s32 GetIPAddrStrList(const astring * /*pHostName*/, u32 *pCount, KCSIPAddrStr *pList) {
  if (pCount == nullptr) return SM_STATUS_BAD_PARAMETER;
  const u32 room = *pCount;
  *pCount = 0;
  ifaddrs *first = nullptr;
  if (getifaddrs(&first) != 0) return -1;
  const InterfaceList list(first);
  u32 count = 0;
  KCSIPAddrStr text{};
  for (const ifaddrs *interface = list.get(); interface != nullptr; interface = interface->ifa_next) {
    if (!RenderOwnAddress(*interface, text)) continue;
    if (pList != nullptr && count < room) pList[count] = text;
    ++count;
  }
  *pCount = count;
  return pList != nullptr && count > room ? SM_STATUS_BUFFER_TOO_SMALL : SM_STATUS_SUCCESS;
}

astring *SUPTIntfGetHostNameAStr(void) {
  MallocPtr<astring> name = MallocArray<astring>(kHostNameSize);
  u32 size = kHostNameSize;
  if (!name || GetIPHostName(name.get(), &size) != SM_STATUS_SUCCESS) return nullptr;
  return name.release();
}

astring *SUPTIntfHostGetHostNameAStr(void) { return SUPTIntfGetHostNameAStr(); }

KCSIPAddrStr *SUPTIntfHostGetHostIPAddrList(u32 *pCount) {
  if (pCount == nullptr) return nullptr;
  *pCount = 0;
  const MallocPtr<astring> hostName(SUPTIntfGetHostNameAStr());
  u32 count = 0;
  if (!hostName || GetIPAddrStrList(hostName.get(), &count, nullptr) != SM_STATUS_SUCCESS) return nullptr;
  MallocPtr<KCSIPAddrStr> list = MallocArray<KCSIPAddrStr>(count);
  if (!list || GetIPAddrStrList(hostName.get(), &count, list.get()) != SM_STATUS_SUCCESS) return nullptr;
  *pCount = count;
  return list.release();
}

s32 GetDNSSuffixName(astring * /*pName*/, u32 *pSize) { return pSize == nullptr ? SM_STATUS_INVALID_INPUT : -1; }

s32 IPAddrASCIIToNetwork(const astring *pText, u8 *pAddr, u32 *pSize) {
  if (!ipsuptLoaded) return SM_STATUS_NOT_LOADED;
  if (pText == nullptr || pAddr == nullptr || pSize == nullptr) return SM_STATUS_BAD_PARAMETER;
  const bool isIPv6 = std::strchr(pText, ':') != nullptr;
  const u32 needed = isIPv6 ? kIPv6Size : kIPv4Size;
  if (*pSize < needed) {
    *pSize = needed;
    return SM_STATUS_BUFFER_TOO_SMALL;
  }
  if (inet_pton(isIPv6 ? AF_INET6 : AF_INET, pText, pAddr) != 1) return -1;
  *pSize = needed;
  return SM_STATUS_SUCCESS;
}

s32 IPAddrNetworkToASCII(const u8 *pAddr, u32 addrSize, astring *pText, u32 *pSize) {
  if (!ipsuptLoaded) return SM_STATUS_NOT_LOADED;
  if (addrSize != kIPv4Size && addrSize != kIPv6Size) return SM_STATUS_BAD_PARAMETER;
  if (pAddr == nullptr || pText == nullptr || pSize == nullptr) return SM_STATUS_BAD_PARAMETER;
  KCSIPAddrStr text{};
  if (inet_ntop(addrSize == kIPv4Size ? AF_INET : AF_INET6, pAddr, text.az, sizeof text.az) == nullptr) return -1;
  const u32 needed = static_cast<u32>(std::strlen(text.az) + 1);
  const u32 room = *pSize;
  *pSize = needed;
  if (room < needed) return SM_STATUS_BUFFER_TOO_SMALL;
  std::memcpy(pText, text.az, needed);
  pText[room - 1] = '\0';
  return SM_STATUS_SUCCESS;
}

s32 CheckIPEqual(const astring *pAddr1, const astring *pAddr2) {
  if (pAddr1 == nullptr || pAddr2 == nullptr) return SM_STATUS_BAD_PARAMETER;
  u32 size = kIPv6Size;
  if (IsIPv6(pAddr1) != 1 || IsIPv6(pAddr2) != 1) {
    if (IsIPv4(pAddr1) != 1 || IsIPv4(pAddr2) != 1) return 0;
    size = kIPv4Size;
  }
  std::array<u8, kIPv6Size> bytes1{};
  std::array<u8, kIPv6Size> bytes2{};
  u32 size1 = size;
  u32 size2 = size;
  if (IPAddrASCIIToNetwork(pAddr1, bytes1.data(), &size1) != SM_STATUS_SUCCESS) return 0;
  if (IPAddrASCIIToNetwork(pAddr2, bytes2.data(), &size2) != SM_STATUS_SUCCESS) return 0;
  return bytes1 == bytes2 ? 1 : 0;
}

s32 IsIPv6(const astring *pText) {
  if (pText == nullptr) return SM_STATUS_NULL_ADDRESS;
  return std::strchr(pText, ':') != nullptr ? 1 : 0;
}

s32 IsIPv4(const astring *pText) {
  if (pText == nullptr) return 0;
  return pText[std::strspn(pText, "0123456789.")] == '\0' ? 1 : 0;
}

s32 IsLinkLocal(const astring *pText) {
  if (pText == nullptr) return SM_STATUS_NULL_ADDRESS;
  constexpr std::string_view kPrefix = "fe80";
  for (const char expected : kPrefix) {
    const char ch = *pText++;
    if ((ch >= 'A' && ch <= 'Z' ? ch + ('a' - 'A') : ch) != expected) return -1;
  }
  return 0;
}

Proto_Type GetSockType(void) {
  const bool hasIPv6 = CanOpenStream(AF_INET6);
  const bool hasIPv4 = CanOpenStream(AF_INET);
  if (hasIPv6) return hasIPv4 ? BOTH : IPv6;
  return hasIPv4 ? IPv4 : NONE;
}

const astring *GetLoopBack(void) {
  switch (GetSockType()) {
    case NONE: return nullptr;
    case IPv6: return "::1";
    default: return "127.0.0.1";
  }
}

namespace {

constexpr u8 HexDigitValue(u8 ch) {
  if (ch >= 'a' && ch <= 'f') return static_cast<u8>(ch - 'a' + 10);
  if (ch >= 'A' && ch <= 'F') return static_cast<u8>(ch - 'A' + 10);
  return static_cast<u8>(ch - '0');  // Kept: what is no digit has a value all the same.
}

constexpr auto kHexDigitValues = [] {
  std::array<u8, 256> values{};
  for (unsigned i = 0; i < values.size(); ++i) values[i] = HexDigitValue(static_cast<u8>(i));
  return values;
}();

u8 ValueOf(astring ch) { return kHexDigitValues[static_cast<u8>(ch)]; }

// The three digests behind one face: construction starts one, Finish answers false when libcrypto failed. A context
// holds the last block of the password: finishing erases it, and what is not finished is wiped here.
class MD5Digest {
 public:
  static constexpr size_t kSize = ZEBCS_MD5_SIZE;
  MD5Digest() : m_good(MD5_Init(&m_context) == 1) {}
  MD5Digest(const MD5Digest &) = delete;
  MD5Digest &operator=(const MD5Digest &) = delete;
  ~MD5Digest() {
    if (!m_isErased) explicit_bzero(&m_context, sizeof m_context);
  }
  void Update(const void *data, size_t size) { m_good = m_good && MD5_Update(&m_context, data, size) == 1; }
  bool Finish(u8 *pDigest) {
    m_isErased = m_good && MD5_Final(pDigest, &m_context) == 1;
    return m_isErased;
  }

 private:
  MD5_CTX m_context;
  bool m_good;
  bool m_isErased = false;
};

class SHA256Digest {
 public:
  static constexpr size_t kSize = ZEBCS_SHA256_SIZE;
  SHA256Digest() : m_good(SHA256_Init(&m_context) == 1) {}
  SHA256Digest(const SHA256Digest &) = delete;
  SHA256Digest &operator=(const SHA256Digest &) = delete;
  ~SHA256Digest() {
    if (!m_isErased) explicit_bzero(&m_context, sizeof m_context);
  }
  void Update(const void *data, size_t size) { m_good = m_good && SHA256_Update(&m_context, data, size) == 1; }
  bool Finish(u8 *pDigest) {
    m_isErased = m_good && SHA256_Final(pDigest, &m_context) == 1;
    return m_isErased;
  }

 private:
  SHA256_CTX m_context;
  bool m_good;
  bool m_isErased = false;
};

struct DigestContextDeleter {
  void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }  // wipes it
};

class EVPDigest {
 public:
  static constexpr size_t kSize = ZEBCS_SHA256_SIZE;
  EVPDigest() : m_context(EVP_MD_CTX_new()) {
    m_good = m_context != nullptr && EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) == 1;
  }
  void Update(const void *data, size_t size) { m_good = m_good && EVP_DigestUpdate(m_context.get(), data, size) == 1; }
  bool Finish(u8 *pDigest) { return m_good && EVP_DigestFinal_ex(m_context.get(), pDigest, nullptr) == 1; }

 private:
  std::unique_ptr<EVP_MD_CTX, DigestContextDeleter> m_context;
  bool m_good = false;
};

// Digests the text and then the bytes that the salt spells, block by block, so that neither has a longest length and
// the password is not copied.
template <class Digest>
void HashText(const astring *pText, const astring *pSalt, u8 *pDigest) {
  if (pDigest == nullptr) return;
  bool good = false;
  if (pText != nullptr && pSalt != nullptr) {
    Digest digest;
    digest.Update(pText, std::strlen(pText));
    // Kept: an odd last digit is not hashed.
    for (size_t left = std::strlen(pSalt) / 2; left > 0;) {
      u8 saltBytes[128];
      const size_t count = std::min(left, sizeof saltBytes);
      for (size_t i = 0; i < count; ++i, pSalt += 2) {
        saltBytes[i] = static_cast<u8>(ValueOf(pSalt[0]) << 4 | ValueOf(pSalt[1]));
      }
      digest.Update(saltBytes, count);
      left -= count;
    }
    good = digest.Finish(pDigest);
  }
  // Callers compare the output: left alone it might hold the digest of an earlier, right password.
  if (!good) std::memset(pDigest, 0, Digest::kSize);
}

}  // namespace

u8 hexToDecimalConvert(astring ch) { return ValueOf(ch); }

void MD5Hash(const astring *pText, u8 *pDigest) { HashText<MD5Digest>(pText, "", pDigest); }

void SHA256Hash(const astring *pText, u8 *pDigest) { HashText<SHA256Digest>(pText, "", pDigest); }

void MD5HashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt) {
  HashText<MD5Digest>(pPasswd, pSalt, pDigest);
}

void SHA256HashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt) {
  HashText<SHA256Digest>(pPasswd, pSalt, pDigest);
}

void EVPHashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt) {
  HashText<EVPDigest>(pPasswd, pSalt, pDigest);
}
