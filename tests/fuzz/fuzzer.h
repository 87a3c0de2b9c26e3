// What the fuzzers have in common: the entry, the check that ends a run, and the pieces of an input.
#ifndef ZEBCS_TESTS_FUZZ_FUZZER_H
#define ZEBCS_TESTS_FUZZ_FUZZER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

// Runs one input. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// Ends the program with a message, and so the run with a finding.
#define FUZZ_CHECK(condition)                                                            \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)

// Takes an input apart, from its start. What is behind the end is zeros and empty texts.
class FuzzInput {
 public:
  FuzzInput(const uint8_t *data, size_t size) : m_rest(reinterpret_cast<const char *>(data), size) {}

  template <class Number>
  Number Take() {
    Number number = 0;
    const std::string_view bytes = TakeBytes(sizeof number);
    std::memcpy(&number, bytes.data(), bytes.size());
    return number;
  }

  std::string_view TakeBytes(size_t count) {
    const std::string_view bytes = m_rest.substr(0, count);
    m_rest.remove_prefix(bytes.size());
    return bytes;
  }

  // The text up to the next zero, which is passed over.
  std::string TakeText() {
    const std::string_view text = TakeBytes(m_rest.find('\0'));
    if (!m_rest.empty()) m_rest.remove_prefix(1);
    return std::string(text);
  }

  std::string_view TakeRest() { return TakeBytes(m_rest.size()); }
  bool IsEmpty() const { return m_rest.empty(); }

 private:
  std::string_view m_rest;
};

#endif
