// UTF-8 to UTF-16 and back beside ICU, GLib and iconv: texts of four kinds, a name, a line and a megabyte.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <iconv.h>
#include <unicode/ustring.h>

#include <memory>
#include <string>
#include <vector>

#include "compare.h"
#include "zebcs/encoding.h"

namespace {

struct Text {
  std::string name;
  std::string utf8;
  std::vector<ustring> utf16;  // with its terminator
};

const struct {
  const char *name;
  const char *sample;
} kKinds[] = {
    {"ascii", "The quick brown fox jumps over the lazy dog; 1234567890. "},
    {"latin",
     "Portez ce vieux whisky au juge blond qui fume, d\u00e9\u00e7u par l'\u00e2me na\u00efve. Zw\u00f6lf gro\u00dfe "
     "Boxk\u00e4mpfer. "},
    {"cyrillic", "Съешь же ещё этих мягких французских булок, да выпей чаю. Широкая электрификация южных губерний. "},
    {"japanese",
     "いろはにほへと ちりぬるを、わかよたれそ つねならむ。うゐのおくやま けふこえて、浅き夢見じ 酔ひもせず。"},
};

std::shared_ptr<const Text> Make(const char *name, const std::string &sample, size_t size) {
  auto text = std::make_shared<Text>();
  text->name = std::string(name) + "/" + std::to_string(size);
  while (text->utf8.size() < size) text->utf8 += sample;
  while ((static_cast<u8>(text->utf8[size]) & 0xC0) == 0x80) --size;  // not in the midst of a character
  text->utf8.resize(size);
  u32 needed = 0;
  Require(KCSUTF8StrToUCS2Str(nullptr, &needed, text->utf8.c_str()) == 0, "sizing failed");
  text->utf16.resize(needed / sizeof(ustring));
  Require(KCSUTF8StrToUCS2Str(text->utf16.data(), &needed, text->utf8.c_str()) == 0, "converting failed");
  return text;
}

struct IconvCloser {
  void operator()(iconv_t descriptor) const { iconv_close(descriptor); }
};
using Iconv = std::unique_ptr<void, IconvCloser>;

size_t RunIconv(iconv_t descriptor, const void *source, size_t sourceSize, void *dest, size_t destSize) {
  char *in = static_cast<char *>(const_cast<void *>(source));
  char *out = static_cast<char *>(dest);
  size_t left = destSize;
  Require(iconv(descriptor, &in, &sourceSize, &out, &left) != static_cast<size_t>(-1), "iconv failed");
  return destSize - left;
}

template <class Convert>
void Add(const std::string &name, size_t bytes, Convert convert) {
  benchmark::RegisterBenchmark(name.c_str(), [convert, bytes](benchmark::State &state) {
    for (auto _ : state) convert();
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
  });
}

void AddToUTF16(const std::shared_ptr<const Text> &text) {
  const size_t bytes = text->utf8.size();
  const size_t units = text->utf16.size();
  const auto buffer = std::make_shared<std::vector<ustring>>(units);
  const auto ours = [text, buffer] {
    u32 size = static_cast<u32>(buffer->size());
    benchmark::DoNotOptimize(KCSUTF8StrToUCS2Str(buffer->data(), &size, text->utf8.c_str()));
  };
  const auto icu = [text, buffer] {
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(reinterpret_cast<UChar *>(buffer->data()), static_cast<int32_t>(buffer->size()), &length,
                  text->utf8.c_str(), -1, &error);
    benchmark::DoNotOptimize(length);
  };
  const auto glib = [text, buffer] {
    gunichar2 *const result = g_utf8_to_utf16(text->utf8.c_str(), -1, nullptr, nullptr, nullptr);
    benchmark::DoNotOptimize(result);
    return std::unique_ptr<gunichar2, decltype(&g_free)>(result, g_free);
  };
  const auto descriptor = std::shared_ptr<void>(iconv_open("UTF-16LE", "UTF-8"), IconvCloser());
  const auto byIconv = [text, buffer, descriptor] {
    return RunIconv(descriptor.get(), text->utf8.c_str(), text->utf8.size() + 1, buffer->data(),
                    buffer->size() * sizeof(ustring));
  };
  const auto check = [&](const char *who) {
    Require(*buffer == text->utf16, std::string(who) + " differs on " + text->name);
  };
  ours(), check("zebcs");
  std::fill(buffer->begin(), buffer->end(), ustring{0}), icu(), check("ICU");
  std::fill(buffer->begin(), buffer->end(), ustring{0}), byIconv(), check("iconv");
  Require(std::equal(text->utf16.begin(), text->utf16.end(), glib().get()), "GLib differs on " + text->name);
  const std::string name = "utf8_to_utf16/" + text->name;
  Add(name + "/zebcs", bytes, ours);
  Add(name + "/icu", bytes, icu);
  Add(name + "/glib", bytes, glib);
  Add(name + "/iconv", bytes, byIconv);
  Add(name + "/sizing/zebcs", bytes, [text] {
    u32 size = 0;
    KCSUTF8StrToUCS2Str(nullptr, &size, text->utf8.c_str());
    benchmark::DoNotOptimize(size);
  });
  Add(name + "/sizing/icu", bytes, [text] {
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, text->utf8.c_str(), -1, &error);
    benchmark::DoNotOptimize(length);
  });
}

void AddToUTF8(const std::shared_ptr<const Text> &text) {
  const size_t bytes = text->utf8.size();
  const auto buffer = std::make_shared<std::string>(bytes + 1, '\0');
  const auto ours = [text, buffer] {
    u32 size = static_cast<u32>(buffer->size());
    benchmark::DoNotOptimize(KCSUCS2StrToUTF8Str(buffer->data(), &size, text->utf16.data()));
  };
  const auto icu = [text, buffer] {
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strToUTF8(buffer->data(), static_cast<int32_t>(buffer->size()), &length,
                reinterpret_cast<const UChar *>(text->utf16.data()), -1, &error);
    benchmark::DoNotOptimize(length);
  };
  const auto glib = [text] {
    gchar *const result = g_utf16_to_utf8(text->utf16.data(), -1, nullptr, nullptr, nullptr);
    benchmark::DoNotOptimize(result);
    return std::unique_ptr<gchar, decltype(&g_free)>(result, g_free);
  };
  const auto descriptor = std::shared_ptr<void>(iconv_open("UTF-8", "UTF-16LE"), IconvCloser());
  const auto byIconv = [text, buffer, descriptor] {
    return RunIconv(descriptor.get(), text->utf16.data(), text->utf16.size() * sizeof(ustring), buffer->data(),
                    buffer->size());
  };
  const auto check = [&](const char *who) {
    Require(*buffer == text->utf8 + '\0', std::string(who) + " differs on " + text->name);
  };
  ours(), check("zebcs");
  std::fill(buffer->begin(), buffer->end(), '\0'), icu(), check("ICU");
  std::fill(buffer->begin(), buffer->end(), '\0'), byIconv(), check("iconv");
  Require(text->utf8 == glib().get(), "GLib differs on " + text->name);
  const std::string name = "utf16_to_utf8/" + text->name;
  Add(name + "/zebcs", bytes, ours);
  Add(name + "/icu", bytes, icu);
  Add(name + "/glib", bytes, glib);
  Add(name + "/iconv", bytes, byIconv);
  Add(name + "/sizing/zebcs", bytes, [text] {
    u32 size = 0;
    KCSUCS2StrToUTF8Str(nullptr, &size, text->utf16.data());
    benchmark::DoNotOptimize(size);
  });
  Add(name + "/sizing/icu", bytes, [text] {
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strToUTF8(nullptr, 0, &length, reinterpret_cast<const UChar *>(text->utf16.data()), -1, &error);
    benchmark::DoNotOptimize(length);
  });
}

}  // namespace

void AddEncodingBenchmarks() {
  for (const auto &kind : kKinds) {
    for (const size_t size : {32u, 1024u, 1u << 20}) {
      const auto text = Make(kind.name, kind.sample, size);
      AddToUTF16(text);
      AddToUTF8(text);
    }
  }
  const auto malformed = std::make_shared<std::string>(std::string(1000, 'a') + "\xFF");
  Add("utf8_to_utf16/malformed/1001/zebcs", malformed->size(), [malformed] {
    u32 size = 0;
    benchmark::DoNotOptimize(KCSUTF8StrToUCS2Str(nullptr, &size, malformed->c_str()));
  });
}
