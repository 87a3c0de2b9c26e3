// Salted digests beside the bare libcrypto calls on bytes that are ready.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/sha.h>

#include "compare.h"
#include "zebcs/net.h"

namespace {

constexpr char kPassword[] = "correct-hors";
constexpr char kSalt[] = "00112233445566778899aabbccddeeff";

std::vector<u8> PreparedBytes() {
  std::vector<u8> bytes(kPassword, kPassword + std::strlen(kPassword));
  for (unsigned i = 0; i < 16; ++i) bytes.push_back(static_cast<u8>(i * 0x11));
  return bytes;
}

void BareMD5(const std::vector<u8> &bytes, u8 *digest) {
  MD5_CTX context;
  MD5_Init(&context);
  MD5_Update(&context, bytes.data(), bytes.size());
  MD5_Final(digest, &context);
}

void BareSHA256(const std::vector<u8> &bytes, u8 *digest) {
  SHA256_CTX context;
  SHA256_Init(&context);
  SHA256_Update(&context, bytes.data(), bytes.size());
  SHA256_Final(digest, &context);
}

void BareEVP(const std::vector<u8> &bytes, u8 *digest) {
  EVP_MD_CTX *const context = EVP_MD_CTX_new();
  EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
  EVP_DigestUpdate(context, bytes.data(), bytes.size());
  EVP_DigestFinal_ex(context, digest, nullptr);
  EVP_MD_CTX_free(context);
}

void AddPair(const std::string &name, void (*ours)(const astring *, u8 *, const astring *),
             void (*bare)(const std::vector<u8> &, u8 *)) {
  const std::vector<u8> bytes = PreparedBytes();
  u8 ourDigest[32] = {};
  u8 bareDigest[32] = {};
  ours(kPassword, ourDigest, kSalt);
  bare(bytes, bareDigest);
  Require(std::memcmp(ourDigest, bareDigest, sizeof ourDigest) == 0, name + " differs");
  benchmark::RegisterBenchmark(("salted/" + name + "/zebcs").c_str(), [ours](benchmark::State &state) {
    u8 digest[32];
    for (auto _ : state) {
      ours(kPassword, digest, kSalt);
      benchmark::DoNotOptimize(digest);
    }
  });
  benchmark::RegisterBenchmark(("salted/" + name + "/bare").c_str(), [bare, bytes](benchmark::State &state) {
    u8 digest[32];
    for (auto _ : state) {
      bare(bytes, digest);
      benchmark::DoNotOptimize(digest);
    }
  });
}

}  // namespace

void AddDigestBenchmarks() {
  AddPair("md5", KCSMD5HashForPasswdSalt, BareMD5);
  AddPair("sha256", KCSSHA256HashForPasswdSalt, BareSHA256);
  AddPair("evp", KCSEVPHashForPasswdSalt, BareEVP);
}
