// Numbers as text beside the C library's formatted input and output.
#include <cctype>
#include <cinttypes>

#include "fuzzer.h"
#include "zebcs/number.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzInput input(data, size);
  const auto number = input.Take<s64>();
  const std::string text = input.TakeText();

  // Decimal text is read in 64 bits, and its low 32 bits are kept.
  long long wide = 0;
  const bool isNumber = std::sscanf(text.c_str(), "%lld", &wide) == 1;
  FUZZ_CHECK(KCSASCIIToSigned32(text.c_str()) == (isNumber ? static_cast<s32>(wide) : 0));

  astring written[32];
  char expected[32];
  KCSSigned64ToASCII(written, number);
  std::snprintf(expected, sizeof expected, "%" PRId64, number);
  FUZZ_CHECK(std::strcmp(written, expected) == 0);
  FUZZ_CHECK(KCSASCIIToSigned64(written) == number);
  return 0;
}
