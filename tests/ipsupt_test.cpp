// Host name, own addresses, address text and password digests.
#include "zebcs/net.h"
#include "zebcs/product.h"

// The digests of before OpenSSL 3 are what the library calls.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "program.h"
#include "sandbox.h"
#include "zebcs/frame.h"

// --- Steps of a digest, which libcrypto can refuse -------------------------------------------------------------------

namespace {

int l_steps = 0;        // taken so far
int l_refusedStep = 0;  // counted from 1; 0 for none

template <class Function, class... Arguments>
int TakeStep(Function * /*ours*/, const char *name, Arguments... arguments) {
  if (++l_steps == l_refusedStep) return 0;
  void *const address = dlsym(RTLD_NEXT, name);
  if (address == nullptr) std::abort();
  return reinterpret_cast<Function *>(address)(arguments...);
}

}  // namespace

#pragma GCC visibility push(default)  // the library finds these before libcrypto's
extern "C" {
int MD5_Init(MD5_CTX *context) { return TakeStep(MD5_Init, "MD5_Init", context); }
int MD5_Update(MD5_CTX *context, const void *data, size_t size) {
  return TakeStep(MD5_Update, "MD5_Update", context, data, size);
}
int MD5_Final(unsigned char *digest, MD5_CTX *context) { return TakeStep(MD5_Final, "MD5_Final", digest, context); }
int SHA256_Init(SHA256_CTX *context) { return TakeStep(SHA256_Init, "SHA256_Init", context); }
int SHA256_Update(SHA256_CTX *context, const void *data, size_t size) {
  return TakeStep(SHA256_Update, "SHA256_Update", context, data, size);
}
int SHA256_Final(unsigned char *digest, SHA256_CTX *context) {
  return TakeStep(SHA256_Final, "SHA256_Final", digest, context);
}
int EVP_DigestInit_ex(EVP_MD_CTX *context, const EVP_MD *type, ENGINE *engine) {
  return TakeStep(EVP_DigestInit_ex, "EVP_DigestInit_ex", context, type, engine);
}
int EVP_DigestUpdate(EVP_MD_CTX *context, const void *data, size_t size) {
  return TakeStep(EVP_DigestUpdate, "EVP_DigestUpdate", context, data, size);
}
int EVP_DigestFinal_ex(EVP_MD_CTX *context, unsigned char *digest, unsigned int *size) {
  return TakeStep(EVP_DigestFinal_ex, "EVP_DigestFinal_ex", context, digest, size);
}
}  // extern "C"
#pragma GCC visibility pop

namespace {

constexpr char kFill = 'x';
constexpr const char *kProbe = "as-probe";

// This program as a client that has just loaded the library: prints the statuses of the functions that need it attached.
__attribute__((constructor)) void ActAsProbe(int argc, char **argv) {
  if (argc != 2 || std::string_view(argv[1]) != kProbe) return;
  astring text[100];
  ustring wide[100];
  u8 address[16] = {};
  u32 size = sizeof text;
  std::printf("%d ", KCSGetIPHostName(text, &size));
  std::printf("%d ", KCSUniGetIPHostName(wide, &size));
  std::printf("%d ", KCSIPAddrASCIIToNetwork("::1", address, &size));
  std::printf("%d ", KCSIPAddrNetworkToASCII(address, sizeof address, text, &size));
  std::printf("%d\n", UnLoadIPSupt());
  std::exit(0);
}

std::vector<std::string> OwnAddresses() {
  u32 count = 0;
  KCSIPAddrStr *const list = KCSHostGetHostIPAddrList(&count);
  std::vector<std::string> addresses;
  for (u32 i = 0; i < count; ++i) addresses.emplace_back(list[i].az);
  SUPTFreeMem(list);
  return addresses;
}

using Bytes = std::vector<u8>;

Bytes Digest(const EVP_MD *algorithm, const Bytes &data) {
  Bytes digest(static_cast<size_t>(EVP_MD_get_size(algorithm)));
  EXPECT_EQ(EVP_Digest(data.data(), data.size(), digest.data(), nullptr, algorithm, nullptr), 1);
  return digest;
}

std::string Hex(const Bytes &bytes) {
  std::string text;
  for (const u8 byte : bytes) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

struct SaltedDigest {
  const char *name;
  void (*hash)(const astring *, u8 *, const astring *);
  const EVP_MD *(*algorithm)();
};

const SaltedDigest kSaltedDigests[] = {
    {"MD5", KCSMD5HashForPasswdSalt, EVP_md5},
    {"SHA256", KCSSHA256HashForPasswdSalt, EVP_sha256},
    {"EVP", KCSEVPHashForPasswdSalt, EVP_sha256},
};

// The digest, and behind it bytes that must stay as they are.
Bytes SaltedHash(const SaltedDigest &digest, const char *password, const char *salt) {
  const size_t size = static_cast<size_t>(EVP_MD_get_size(digest.algorithm()));
  Bytes output(size + 8, kFill);
  digest.hash(password, output.data(), salt);
  EXPECT_EQ(Bytes(output.begin() + static_cast<ptrdiff_t>(size), output.end()), Bytes(8, kFill)) << digest.name;
  output.resize(size);
  return output;
}

}  // namespace

TEST(LoadIPSupt, SecondCallAnswersBadParameter) {
  sandbox::RequireSandbox();
  EXPECT_EQ(LoadIPSupt(), SM_STATUS_BAD_PARAMETER) << "loading the library loaded it";
}

TEST(UnLoadIPSupt, KeptItStaysLoaded) {
  sandbox::RequireSandbox();
  EXPECT_EQ(UnLoadIPSupt(), SM_STATUS_SUCCESS);
  EXPECT_EQ(UnLoadIPSupt(), SM_STATUS_SUCCESS);
  EXPECT_EQ(LoadIPSupt(), SM_STATUS_BAD_PARAMETER);
}

TEST(GetIPHostName, SizeBecomesLengthPlusOne) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::SetHostName("web01"));
  for (const u32 room : {6u, 7u, 65u}) {
    std::string buffer(70, kFill);
    u32 size = room;
    EXPECT_EQ(KCSGetIPHostName(buffer.data(), &size), SM_STATUS_SUCCESS);
    EXPECT_EQ(size, 6u);
    EXPECT_STREQ(buffer.c_str(), "web01");
    EXPECT_EQ(buffer.substr(room), std::string(70 - room, kFill));
  }
}

TEST(GetIPHostName, KeptNameThatDoesNotFitIsNoFailure) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::SetHostName("web01"));
  for (const u32 room : {1u, 5u}) {
    std::string buffer(10, kFill);
    u32 size = room;
    EXPECT_EQ(KCSGetIPHostName(buffer.data(), &size), SM_STATUS_SUCCESS);
    EXPECT_EQ(size, room) << "the size stays";
    EXPECT_EQ(buffer[room - 1], '\0') << "terminated within its room";
    EXPECT_EQ(buffer.substr(room), std::string(10 - room, kFill));
  }
  std::string buffer(10, kFill);
  u32 size = 0;
  EXPECT_EQ(KCSGetIPHostName(buffer.data(), &size), SM_STATUS_SUCCESS);
  EXPECT_EQ(buffer, std::string(10, kFill));
}

TEST(GetIPHostName, NullArguments) {
  sandbox::RequireSandbox();
  astring name[8];
  u32 size = sizeof name;
  EXPECT_EQ(KCSGetIPHostName(nullptr, &size), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSGetIPHostName(name, nullptr), SM_STATUS_BAD_PARAMETER);
}

TEST(UniGetIPHostName, AnswersInUnits) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::SetHostName("ab"));
  ustring name[8];
  u32 size = 8;
  EXPECT_EQ(KCSUniGetIPHostName(name, &size), SM_STATUS_SUCCESS);
  EXPECT_EQ(size, 6u);
  EXPECT_EQ(std::vector<ustring>(name, name + 3), (std::vector<ustring>{'a', 'b', 0}));
  size = 0;
  EXPECT_EQ(KCSUniGetIPHostName(nullptr, &size), SM_STATUS_SUCCESS);
  EXPECT_EQ(size, 6u);
  size = 2;
  EXPECT_EQ(KCSUniGetIPHostName(name, &size), SM_STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(KCSUniGetIPHostName(name, nullptr), SM_STATUS_INVALID_INPUT);
}

TEST(GetHostNameAStr, IsNewTextOfAtMost63Characters) {
  sandbox::RequireSandbox();
  for (astring *(*get)() : {KCSGetHostNameAStr, SUPTIntfGetHostNameAStr, SUPTIntfHostGetHostNameAStr}) {
    for (const size_t length : {1u, 63u, 64u}) {
      ASSERT_TRUE(sandbox::SetHostName(std::string(length, 'h')));
      astring *const name = get();
      ASSERT_NE(name, nullptr);
      EXPECT_EQ(std::string(name), std::string(std::min<size_t>(length, 63), 'h'));
      SUPTFreeMem(name);
    }
  }
}

TEST(GetIPAddrStrList, LoopbackAloneIsNone) {
  sandbox::RequireSandbox();
  u32 count = 9;
  EXPECT_EQ(KCSGetIPAddrStrList("ignored", &count, nullptr), SM_STATUS_SUCCESS);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(OwnAddresses(), std::vector<std::string>());
}

TEST(GetIPAddrStrList, ListsBothFamilies) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::A/64"));
  EXPECT_EQ(OwnAddresses(), (std::vector<std::string>{"192.0.2.10", "2001:db8::a"}));
}

TEST(GetIPAddrStrList, InterfaceThatIsNotRunningIsSkipped) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::SetInterfaceUp("net0", false));
  EXPECT_EQ(OwnAddresses(), std::vector<std::string>());
}

TEST(GetIPAddrStrList, FillsTheSlotsThereAreAndTellsTheNeed) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  for (const char *address : {"192.0.2.1/24", "192.0.2.2/24", "192.0.2.3/24"}) {
    ASSERT_TRUE(sandbox::AddAddress("net0", address));
  }
  u32 count = 0;
  EXPECT_EQ(KCSGetIPAddrStrList(nullptr, &count, nullptr), SM_STATUS_SUCCESS);
  EXPECT_EQ(count, 3u);
  const std::string untouched(sizeof(KCSIPAddrStr), kFill);
  for (const u32 room : {0u, 2u, 3u, 4u}) {
    std::vector<KCSIPAddrStr> list(4);
    for (KCSIPAddrStr &slot : list) std::memset(slot.az, kFill, sizeof slot.az);
    count = room;
    EXPECT_EQ(KCSGetIPAddrStrList(nullptr, &count, list.data()),
              room < 3 ? SM_STATUS_BUFFER_TOO_SMALL : SM_STATUS_SUCCESS);
    EXPECT_EQ(count, 3u);
    for (u32 i = 0; i < 4; ++i) {
      if (i < std::min(room, 3u)) {
        EXPECT_EQ(std::string(list[i].az), "192.0.2." + std::to_string(i + 1));
      } else {
        EXPECT_EQ(std::string(list[i].az, sizeof list[i].az), untouched);
      }
    }
  }
}

TEST(GetIPAddrStrList, NullCount) {
  KCSIPAddrStr slot;
  EXPECT_EQ(KCSGetIPAddrStrList(nullptr, nullptr, &slot), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSHostGetHostIPAddrList(nullptr), nullptr);
}

TEST(GetDNSSuffixNameName, IsNotSupported) {
  astring name[4];
  u32 size = sizeof name;
  EXPECT_EQ(KCSGetDNSSuffixNameName(name, &size), -1);
  EXPECT_EQ(KCSGetDNSSuffixNameName(name, nullptr), SM_STATUS_INVALID_INPUT);
}

TEST(IPAddrASCIIToNetwork, Table) {
  sandbox::RequireSandbox();
  const Bytes mapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, 1};
  const struct {
    const char *what;
    const char *text;
    u32 room;
    s32 status;
    u32 size;
    Bytes bytes;
  } cases[] = {
      {"IPv4", "192.0.2.1", 4, 0, 4, {192, 0, 2, 1}},
      {"IPv4 with more room", "192.0.2.1", 16, 0, 4, {192, 0, 2, 1}},
      {"IPv4 with less room", "192.0.2.1", 3, SM_STATUS_BUFFER_TOO_SMALL, 4, {}},
      {"no room", "192.0.2.1", 0, SM_STATUS_BUFFER_TOO_SMALL, 4, {}},
      {"IPv6", "::ffff:192.0.2.1", 16, 0, 16, mapped},
      {"IPv6 with less room", "::1", 15, SM_STATUS_BUFFER_TOO_SMALL, 16, {}},
      {"host name", "localhost", 16, -1, 16, {}},
      {"empty text", "", 16, -1, 16, {}},
      {"colon alone", ":", 16, -1, 16, {}},
      {"number too large", "192.0.2.256", 4, -1, 4, {}},
  };
  for (const auto &c : cases) {
    Bytes buffer(20, kFill);
    u32 size = c.room;
    EXPECT_EQ(KCSIPAddrASCIIToNetwork(c.text, buffer.data(), &size), c.status) << c.what;
    EXPECT_EQ(size, c.size) << c.what;
    Bytes expected = c.bytes;
    expected.resize(20, kFill);
    if (c.status != -1) {
      EXPECT_EQ(buffer, expected) << c.what;
    }
  }
  u8 byte = 0;
  u32 size = 4;
  EXPECT_EQ(KCSIPAddrASCIIToNetwork(nullptr, &byte, &size), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSIPAddrASCIIToNetwork("1.2.3.4", nullptr, &size), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSIPAddrASCIIToNetwork("1.2.3.4", &byte, nullptr), SM_STATUS_BAD_PARAMETER);
}

TEST(IPAddrNetworkToASCII, Table) {
  sandbox::RequireSandbox();
  const u8 bytes[16] = {0x20, 1, 0xD, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xA};
  const struct {
    const char *what;
    u32 addrSize;
    u32 room;
    s32 status;
    u32 size;
    const char *text;
  } cases[] = {
      {"IPv4 with less room than text", 4, 10, SM_STATUS_BUFFER_TOO_SMALL, 12, nullptr},
      {"IPv4 with as much room as text", 4, 11, SM_STATUS_BUFFER_TOO_SMALL, 12, nullptr},
      {"IPv4 with room for the terminator", 4, 12, 0, 12, "32.1.13.184"},
      {"IPv4 with more room", 4, 20, 0, 12, "32.1.13.184"},
      {"IPv6", 16, 20, 0, 12, "2001:db8::a"},
      {"no room", 16, 0, SM_STATUS_BUFFER_TOO_SMALL, 12, nullptr},
  };
  for (const auto &c : cases) {
    std::string buffer(24, kFill);
    u32 size = c.room;
    EXPECT_EQ(KCSIPAddrNetworkToASCII(bytes, c.addrSize, buffer.data(), &size), c.status) << c.what;
    EXPECT_EQ(size, c.size) << c.what;
    if (c.text == nullptr) {
      EXPECT_EQ(buffer, std::string(24, kFill)) << c.what;
      continue;
    }
    EXPECT_STREQ(buffer.c_str(), c.text) << c.what;
    EXPECT_EQ(buffer[c.room - 1], '\0') << c.what;
    EXPECT_EQ(buffer.substr(c.room), std::string(24 - c.room, kFill)) << c.what;
  }
}

TEST(IPAddrNetworkToASCII, BadArguments) {
  sandbox::RequireSandbox();
  const u8 bytes[16] = {};
  astring text[64];
  u32 size = sizeof text;
  for (const u32 addrSize : {0u, 3u, 5u, 15u, 17u}) {
    EXPECT_EQ(KCSIPAddrNetworkToASCII(bytes, addrSize, text, &size), SM_STATUS_BAD_PARAMETER);
  }
  EXPECT_EQ(KCSIPAddrNetworkToASCII(nullptr, 4, text, &size), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSIPAddrNetworkToASCII(bytes, 4, nullptr, &size), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSIPAddrNetworkToASCII(bytes, 4, text, nullptr), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(size, sizeof text);
}

TEST(CheckIPEqual, Table) {
  sandbox::RequireSandbox();
  const struct {
    const char *a;
    const char *b;
    s32 expected;
  } cases[] = {
      {"192.0.2.1", "192.0.2.1", 1},
      {"192.0.2.1", "192.0.2.2", 0},
      {"192.0.2.1", "192.0.2.001", 0},  // which is no address
      {"::1", "0:0:0:0:0:0:0:1", 1},
      {"2001:DB8::A", "2001:db8::a", 1},
      {"::1", "::2", 0},
      {"::ffff:192.0.2.1", "192.0.2.1", 0},
      {"192.0.2.1", "::ffff:192.0.2.1", 0},
      {"localhost", "localhost", 0},
      {"localhost", "127.0.0.1", 0},
      {"", "", 0},
      {"1.2.3", "1.2.3", 0},
      {":", ":", 0},
      {"a:b", "a:b", 0},
  };
  for (const auto &c : cases) EXPECT_EQ(KCSCheckIPEqual(c.a, c.b), c.expected) << c.a << " and " << c.b;
  EXPECT_EQ(KCSCheckIPEqual(nullptr, "::1"), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSCheckIPEqual("::1", nullptr), SM_STATUS_BAD_PARAMETER);
}

TEST(IsIPv6, LooksForAColon) {
  EXPECT_EQ(KCSIsIPv6("::1"), 1);
  EXPECT_EQ(KCSIsIPv6("x:"), 1);
  EXPECT_EQ(KCSIsIPv6("127.0.0.1"), 0);
  EXPECT_EQ(KCSIsIPv6(""), 0);
  EXPECT_EQ(KCSIsIPv6(nullptr), SM_STATUS_NULL_ADDRESS);
}

TEST(IsIPv4, TakesDigitsAndDots) {
  EXPECT_EQ(KCSIsIPv4("192.0.2.1"), 1);
  EXPECT_EQ(KCSIsIPv4("..9"), 1);
  EXPECT_EQ(KCSIsIPv4(""), 1);
  for (const char *text : {"1/2", "1:2", "a", "1.2.3.4 ", "-1"}) EXPECT_EQ(KCSIsIPv4(text), 0) << text;
  EXPECT_EQ(KCSIsIPv4(nullptr), 0);
}

TEST(IsLinkLocal, LooksAtTheFirstFourCharacters) {
  for (const char *text : {"fe80", "FE80::1", "Fe80::1", "fe80x"}) EXPECT_EQ(KCSIsLinkLocal(text), 0) << text;
  for (const char *text : {"fe8", "", "fe90::1", "f", " fe80", "FE8"}) EXPECT_EQ(KCSIsLinkLocal(text), -1) << text;
  EXPECT_EQ(KCSIsLinkLocal(nullptr), SM_STATUS_NULL_ADDRESS);
}

TEST(GetSockType, SaysWhichSocketsOpen) {
  const auto opens = [](int family) {
    const int fd = socket(family, SOCK_STREAM, 0);
    if (fd == -1) return false;
    close(fd);
    return true;
  };
  const int expected = (opens(AF_INET) ? 1 : 0) + (opens(AF_INET6) ? 2 : 0);
  EXPECT_EQ(static_cast<int>(KCSGetSockType()), expected);
  const char *const loopBacks[] = {nullptr, "127.0.0.1", "::1", "127.0.0.1"};
  EXPECT_STREQ(KCSGetLoopBack(), loopBacks[expected]);
}

TEST(GetSockType, WithoutDescriptorsThereAreNoSocketsAndNoLoopBack) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const Proto_Type type = KCSGetSockType();
  const astring *const loopBack = KCSGetLoopBack();
  u32 count = 4711;
  EXPECT_EQ(KCSGetIPAddrStrList(nullptr, &count, nullptr), -1);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(type, NONE);
  EXPECT_EQ(loopBack, nullptr);
  EXPECT_EQ(count, 0u);
}

TEST(NotLoaded, IsTheAnswerOfALibraryThatCouldNotAttach) {
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));
  const ProgramResult result = RunProgram({std::filesystem::read_symlink("/proc/self/exe"), kProbe});
  EXPECT_EQ(result.output, "17 17 17 17 2\n") << result.errors;
}

TEST(hexToDecimalConvert, EveryCharacter) {
  for (int c = 0; c < 256; ++c) {
    int expected = c - 48;
    if (c >= 'a' && c <= 'f') expected = c - 'a' + 10;
    if (c >= 'A' && c <= 'F') expected = c - 'A' + 10;
    EXPECT_EQ(hexToDecimalConvert(static_cast<astring>(c)), static_cast<u8>(expected)) << c;
  }
}

TEST(MD5Hash, KnownDigests) {
  Bytes digest(17, kFill);
  KCSMD5Hash("abc", digest.data());
  EXPECT_EQ(Hex(digest), "900150983cd24fb0d6963f7d28e17f7278");
  KCSMD5Hash("", digest.data());
  EXPECT_EQ(Hex(digest), "d41d8cd98f00b204e9800998ecf8427e78");
}

TEST(SHA256Hash, KnownDigests) {
  Bytes digest(33, kFill);
  KCSSHA256Hash("abc", digest.data());
  EXPECT_EQ(Hex(digest), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad78");
}

TEST(Hash, NullTextGivesZeros) {
  Bytes digest(32, kFill);
  KCSSHA256Hash(nullptr, digest.data());
  EXPECT_EQ(digest, Bytes(32, 0));
  KCSMD5Hash(nullptr, nullptr);
  for (const SaltedDigest &d : kSaltedDigests) {
    const size_t size = static_cast<size_t>(EVP_MD_get_size(d.algorithm()));
    EXPECT_EQ(SaltedHash(d, nullptr, "00"), Bytes(size, 0)) << d.name;
    EXPECT_EQ(SaltedHash(d, "password", nullptr), Bytes(size, 0)) << d.name;
    d.hash("password", nullptr, "00");
  }
}

TEST(SaltedHash, IsZerosWhereAnyStepOfItIsRefused) {
  for (const SaltedDigest &d : kSaltedDigests) {
    const size_t size = static_cast<size_t>(EVP_MD_get_size(d.algorithm()));
    const Bytes right = SaltedHash(d, "password", "00");
    constexpr int kSteps = 4;  // the beginning, the password, its salt, the end
    for (int step = 1; step <= kSteps; ++step) {
      l_steps = 0;
      l_refusedStep = step;
      const Bytes digest = SaltedHash(d, "password", "00");
      l_refusedStep = 0;
      EXPECT_EQ(l_steps, step) << d.name << ": nothing is asked for behind it";
      EXPECT_EQ(digest, Bytes(size, 0)) << d.name << ", step " << step;
    }
    EXPECT_EQ(SaltedHash(d, "password", "00"), right);
  }
}

TEST(SaltedHash, IsTheDigestOfPasswordAndSaltBytes) {
  const struct {
    const char *what;
    const char *password;
    const char *salt;
    Bytes hashed;
  } cases[] = {
      {"two bytes", "ab", "0aFf", {'a', 'b', 0x0A, 0xFF}},
      {"no salt", "ab", "", {'a', 'b'}},
      {"no password", "", "7f", {0x7F}},
      {"nothing", "", "", {}},
      {"odd last digit", "ab", "0a0", {'a', 'b', 0x0A}},
      {"single digit", "ab", "5", {'a', 'b'}},
      {"characters that are no digits", "", "::zz", {0xAA, 0xEA}},
  };
  for (const SaltedDigest &d : kSaltedDigests) {
    for (const auto &c : cases) {
      EXPECT_EQ(Hex(SaltedHash(d, c.password, c.salt)), Hex(Digest(d.algorithm(), c.hashed)))
          << d.name << ' ' << c.what;
    }
  }
}

TEST(SaltedHash, PasswordAndSaltMayHaveAnyLength) {
  std::mt19937 random(7);
  for (const size_t passwordLength : {1u, 55u, 64u, 511u, 512u, 513u, 5000u}) {
    for (const size_t saltLength : {1u, 127u, 128u, 129u, 512u, 40000u}) {
      const std::string password(passwordLength, 'p');
      Bytes salt(saltLength);
      for (u8 &byte : salt) byte = static_cast<u8>(random());
      Bytes hashed(password.begin(), password.end());
      hashed.insert(hashed.end(), salt.begin(), salt.end());
      for (const SaltedDigest &d : kSaltedDigests) {
        EXPECT_EQ(Hex(SaltedHash(d, password.c_str(), Hex(salt).c_str())), Hex(Digest(d.algorithm(), hashed)))
            << d.name << ' ' << passwordLength << ' ' << saltLength;
      }
    }
  }
}
