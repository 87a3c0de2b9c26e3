// Salted digests beside the bare libcrypto calls on bytes that are ready.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <string>

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/sha.h>

#include "compare.h"
#include "contenders.h"
#include "zebcs/net.h"

namespace {

constexpr char kPassword[] = "correct-hors";
constexpr char kSalt[] = "00112233445566778899aabbccddeeff";
constexpr unsigned char kPrepared[] = "correct-hors\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff";
constexpr size_t kPreparedSize = sizeof kPrepared - 1;

using Digest = std::array<u8, 32>;

void BareMD5(u8 *digest) {
  MD5_CTX context;
  MD5_Init(&context);
  MD5_Update(&context, kPrepared, kPreparedSize);
  MD5_Final(digest, &context);
}

void BareSHA256(u8 *digest) {
  SHA256_CTX context;
  SHA256_Init(&context);
  SHA256_Update(&context, kPrepared, kPreparedSize);
  SHA256_Final(digest, &context);
}

void BareEVP(u8 *digest) {
  EVP_MD_CTX *const context = EVP_MD_CTX_new();
  EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
  EVP_DigestUpdate(context, kPrepared, kPreparedSize);
  EVP_DigestFinal_ex(context, digest, nullptr);
  EVP_MD_CTX_free(context);
}

void AddPair(const std::string &name, void (*ours)(const astring *, u8 *, const astring *), void (*bare)(u8 *)) {
  Digest ourDigest{};
  Digest bareDigest{};
  ours(kPassword, ourDigest.data(), kSalt);
  bare(bareDigest.data());
  Require(ourDigest != Digest{} && ourDigest == bareDigest, "the bare calls differ on " + name);
  AddContender(name + "/zebcs", kPreparedSize, [ours] {
    Digest digest;
    ours(kPassword, digest.data(), kSalt);
    benchmark::DoNotOptimize(digest);
  });
  AddContender(name + "/bare", kPreparedSize, [bare] {
    Digest digest;
    bare(digest.data());
    benchmark::DoNotOptimize(digest);
  });
}

}  // namespace

void AddDigestBenchmarks() {
  AddPair("salted/md5", KCSMD5HashForPasswdSalt, BareMD5);
  AddPair("salted/sha256", KCSSHA256HashForPasswdSalt, BareSHA256);
  AddPair("salted/evp", KCSEVPHashForPasswdSalt, BareEVP);
}
