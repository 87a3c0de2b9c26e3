// UTF-8 to UTF-16 and back beside ICU, GLib and iconv: texts of four kinds, a name, a line and a megabyte.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <iconv.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "compare.h"
#include "contenders.h"
#include "zebcs/encoding.h"

namespace {

struct Text {
  std::string name;
  std::string utf8;
  std::vector<ustring> utf16;  // with its terminator
};

// Each shows what it is for in its first 32 bytes already.
const struct {
  const char *name;
  const char *sample;
} kKinds[] = {
    {"ascii", "The quick brown fox jumps over the lazy dog; 1234567890. "},
    {"latin", "Zwölf große Boxkämpfer jagen Viktor über den Deich; déçu par l'âme naïve, il a bu du café à Orléans. "},
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

void RunIconv(iconv_t descriptor, const void *source, size_t sourceSize, void *dest, size_t destSize) {
  char *in = static_cast<char *>(const_cast<void *>(source));
  char *out = static_cast<char *>(dest);
  benchmark::DoNotOptimize(iconv(descriptor, &in, &sourceSize, &out, &destSize));
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
  const auto glib = [text] {
    gunichar2 *const result = g_utf8_to_utf16(text->utf8.c_str(), -1, nullptr, nullptr, nullptr);
    benchmark::DoNotOptimize(result);
    return std::unique_ptr<gunichar2, decltype(&g_free)>(result, g_free);
  };
  const auto descriptor = std::shared_ptr<void>(iconv_open("UTF-16LE", "UTF-8"), IconvCloser());
  const auto byIconv = [text, buffer, descriptor] {
    RunIconv(descriptor.get(), text->utf8.c_str(), text->utf8.size() + 1, buffer->data(),
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
  AddContender(name + "/zebcs", bytes, ours);
  AddContender(name + "/icu", bytes, icu);
  AddContender(name + "/glib", bytes, glib);
  AddContender(name + "/iconv", bytes, byIconv);

  const auto ourSizing = [text] {
    u32 size = 0;
    KCSUTF8StrToUCS2Str(nullptr, &size, text->utf8.c_str());
    benchmark::DoNotOptimize(size);
    return size;
  };
  const auto icuSizing = [text] {
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, text->utf8.c_str(), -1, &error);
    benchmark::DoNotOptimize(length);
    return length;
  };
  Require(ourSizing() == units * sizeof(ustring), "our size differs on " + text->name);
  Require(icuSizing() == static_cast<int32_t>(units - 1), "ICU's size differs on " + text->name);
  AddContender(name + "/sizing/zebcs", bytes, ourSizing);
  AddContender(name + "/sizing/icu", bytes, icuSizing);
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
    RunIconv(descriptor.get(), text->utf16.data(), text->utf16.size() * sizeof(ustring), buffer->data(),
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
  AddContender(name + "/zebcs", bytes, ours);
  AddContender(name + "/icu", bytes, icu);
  AddContender(name + "/glib", bytes, glib);
  AddContender(name + "/iconv", bytes, byIconv);

  const auto ourSizing = [text] {
    u32 size = 0;
    KCSUCS2StrToUTF8Str(nullptr, &size, text->utf16.data());
    benchmark::DoNotOptimize(size);
    return size;
  };
  const auto icuSizing = [text] {
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strToUTF8(nullptr, 0, &length, reinterpret_cast<const UChar *>(text->utf16.data()), -1, &error);
    benchmark::DoNotOptimize(length);
    return length;
  };
  Require(ourSizing() == bytes + 1, "our size differs on " + text->name);
  Require(icuSizing() == static_cast<int32_t>(bytes), "ICU's size differs on " + text->name);
  AddContender(name + "/sizing/zebcs", bytes, ourSizing);
  AddContender(name + "/sizing/icu", bytes, icuSizing);
}

// A line whose last byte starts no sequence. The peers are left out: they do not agree on what is malformed.
void AddMalformed() {
  const auto text = std::make_shared<const std::string>(std::string(1023, 'a') + "\xFF");
  const auto buffer = std::make_shared<std::vector<ustring>>(text->size() + 1);
  const auto ours = [text, buffer] {
    u32 size = static_cast<u32>(buffer->size());
    const s32 status = KCSUTF8StrToUCS2Str(buffer->data(), &size, text->c_str());
    benchmark::DoNotOptimize(status);
    return status;
  };
  Require(ours() == SM_STATUS_BAD_DATA, "a malformed text was converted");
  AddContender("utf8_to_utf16/malformed/1024/zebcs", text->size(), ours);
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
  AddMalformed();
}
