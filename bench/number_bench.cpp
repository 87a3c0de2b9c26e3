// Numbers to text and back beside the standard library's charconv and stdio: a thousand numbers at a time, of few
// digits, of some, and of many.
#include <benchmark/benchmark.h>

#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include "compare.h"
#include "contenders.h"
#include "zebcs/number.h"

namespace {

constexpr size_t kCount = 1000;

using Text = std::array<char, 64>;

template <class Number>
struct Table {
  std::vector<Number> numbers;
  std::vector<Text> texts;
  size_t bytes = 0;  // of all texts
};

template <class Number>
Number MakeNumber(std::mt19937_64 &random) {
  const u64 size = random() % 3;
  const bool isNegative = random() % 2 == 0;
  if constexpr (std::is_floating_point_v<Number>) {
    const Number limits[] = {1, 1e5, 1e15};
    const Number number = std::generate_canonical<Number, 53>(random) * limits[size];
    return isNegative ? -number : number;
  } else {
    const u64 limits[] = {100, 1000000, u64{1} << (std::is_signed_v<Number> ? 8 * sizeof(Number) - 1 : 63)};
    const auto number = static_cast<Number>(random() % limits[size]);
    if constexpr (std::is_signed_v<Number>) return isNegative ? -number : number;
    return isNegative && size == 2 ? static_cast<Number>(~number) : number;
  }
}

// `print` makes the text that the contenders are held against. What comes back from a text is the number for it: a
// double has more digits than its text shows.
template <class Number, class Print, class Scan>
std::shared_ptr<const Table<Number>> MakeTable(Print print, Scan scan) {
  auto table = std::make_shared<Table<Number>>();
  std::mt19937_64 random(1);
  for (size_t i = 0; i < kCount; ++i) {
    Text text{};
    print(text, MakeNumber<Number>(random));
    table->texts.push_back(text);
    table->numbers.push_back(scan(text));
    table->bytes += std::strlen(text.data());
  }
  return table;
}

template <class Number, class Print>
void AddPrinter(const std::string &name, const std::shared_ptr<const Table<Number>> &table, Print print) {
  for (size_t i = 0; i < kCount; ++i) {
    Text text{};
    print(text, table->numbers[i]);
    Require(std::strcmp(text.data(), table->texts[i].data()) == 0, name + " differs on " + table->texts[i].data());
  }
  AddContender(name, table->bytes, [table, print] {
    Text text;
    for (const Number number : table->numbers) {
      print(text, number);
      benchmark::DoNotOptimize(text);
    }
  });
}

template <class Number, class Scan>
void AddScanner(const std::string &name, const std::shared_ptr<const Table<Number>> &table, Scan scan) {
  for (size_t i = 0; i < kCount; ++i) {
    const Text &text = table->texts[i];
    Require(scan(text) == table->numbers[i], name + " differs on " + text.data());
  }
  AddContender(name, table->bytes, [table, scan] {
    for (const Text &text : table->texts) benchmark::DoNotOptimize(scan(text));
  });
}

template <class Number>
void PrintByCharconv(Text &text, Number number) {
  char *const end = text.data() + text.size();
  if constexpr (std::is_floating_point_v<Number>) {
    *std::to_chars(text.data(), end, number, std::chars_format::fixed, 8).ptr = 0;
  } else {
    *std::to_chars(text.data(), end, number).ptr = 0;
  }
}

// The text ends where no digit follows: nobody has to look for its end first.
template <class Number>
Number ScanByCharconv(const Text &text) {
  Number number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

template <class Number, class Print, class Scan, class StdioPrint, class StdioScan>
std::shared_ptr<const Table<Number>> AddNumber(const std::string &type, Print print, Scan scan, StdioPrint stdioPrint,
                                               StdioScan stdioScan) {
  const auto table = MakeTable<Number>(stdioPrint, stdioScan);
  const std::string toText = "number_to_text/" + type;
  AddPrinter(toText + "/zebcs", table, print);
  AddPrinter(toText + "/charconv", table, PrintByCharconv<Number>);
  AddPrinter(toText + "/stdio", table, stdioPrint);
  const std::string fromText = "number_from_text/" + type;
  AddScanner(fromText + "/zebcs", table, scan);
  AddScanner(fromText + "/charconv", table, ScanByCharconv<Number>);
  AddScanner(fromText + "/stdio", table, stdioScan);
  return table;
}

// A text that is not wholly a number counts as 0.
void AddChecked(const std::shared_ptr<const Table<s32>> &table) {
  const std::string name = "number_from_text/s32_checked";
  AddScanner(name + "/zebcs", table, [](const Text &text) {
    s32 status = 0;
    const s32 number = ASCIIToSigned32VT(text.data(), 10, &status);
    return status == SM_STATUS_SUCCESS ? number : 0;
  });
  AddScanner(name + "/charconv", table, [](const Text &text) {
    s32 number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && *result.ptr == 0 ? number : 0;
  });
  AddScanner(name + "/stdio", table, [](const Text &text) {
    s32 number = 0;
    int length = 0;
    return std::sscanf(text.data(), "%" SCNd32 "%n", &number, &length) == 1 && text[static_cast<size_t>(length)] == 0
               ? number
               : 0;
  });
}

// The text that is there limits the one that is written.
void PrintDouble(Text &text, d64 number) {
  std::memset(text.data(), '0', text.size() - 1);
  text.back() = 0;
  DoubleToASCII(text.data(), number);
}

}  // namespace

void AddNumberBenchmarks() {
  const auto s32Table = AddNumber<s32>(
      "s32", [](Text &text, s32 number) { Signed32ToASCII(text.data(), number); },
      [](const Text &text) { return ASCIIToSigned32(text.data()); },
      [](Text &text, s32 number) { std::snprintf(text.data(), text.size(), "%" PRId32, number); },
      [](const Text &text) {
        s32 number = 0;
        std::sscanf(text.data(), "%" SCNd32, &number);
        return number;
      });
  AddNumber<u32>(
      "u32", [](Text &text, u32 number) { UnSigned32ToASCII(text.data(), number); },
      [](const Text &text) { return ASCIIToUnSigned32(text.data()); },
      [](Text &text, u32 number) { std::snprintf(text.data(), text.size(), "%" PRIu32, number); },
      [](const Text &text) {
        u32 number = 0;
        std::sscanf(text.data(), "%" SCNu32, &number);
        return number;
      });
  AddNumber<s64>(
      "s64", [](Text &text, s64 number) { Signed64ToASCII(text.data(), number); },
      [](const Text &text) { return ASCIIToSigned64(text.data()); },
      [](Text &text, s64 number) { std::snprintf(text.data(), text.size(), "%" PRId64, number); },
      [](const Text &text) {
        s64 number = 0;
        std::sscanf(text.data(), "%" SCNd64, &number);
        return number;
      });
  AddNumber<u64>(
      "u64", [](Text &text, u64 number) { UnSigned64ToASCII(text.data(), number); },
      [](const Text &text) { return ASCIIToUnSigned64(text.data()); },
      [](Text &text, u64 number) { std::snprintf(text.data(), text.size(), "%" PRIu64, number); },
      [](const Text &text) {
        u64 number = 0;
        std::sscanf(text.data(), "%" SCNu64, &number);
        return number;
      });
  AddNumber<d64>(
      "d64", PrintDouble, [](const Text &text) { return ASCIIToDouble(text.data()); },
      [](Text &text, d64 number) { std::snprintf(text.data(), text.size(), "%.8f", number); },
      [](const Text &text) {
        d64 number = 0;
        std::sscanf(text.data(), "%lf", &number);
        return number;
      });
  AddChecked(s32Table);
}
