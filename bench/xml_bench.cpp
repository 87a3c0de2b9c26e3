// Escaping for XML beside GLib, libxml2 and pugixml's writer: no special characters, a few, and dense ones.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <libxml/entities.h>
#include <libxml/xmlmemory.h>

#include <cstring>
#include <memory>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "compare.h"
#include "contenders.h"
#include "zebcs/encoding.h"

namespace {

// The answer expected of a contender that escapes these characters. GLib escapes all five as we do, libxml2 leaves the
// apostrophe as it is, and pugixml both quotes, which need no escaping between tags.
std::string Escaped(const std::string &text, std::string_view special) {
  std::string escaped;
  for (const char c : text) {
    if (special.find(c) == std::string_view::npos) {
      escaped += c;
      continue;
    }
    switch (c) {
      case '"': escaped += "&quot;"; break;
      case '&': escaped += "&amp;"; break;
      case '\'': escaped += "&apos;"; break;
      case '<': escaped += "&lt;"; break;
      default: escaped += "&gt;"; break;
    }
  }
  return escaped;
}

// Appends to a buffer that is large enough.
struct BufferWriter : pugi::xml_writer {
  std::string buffer;
  size_t used = 0;

  void write(const void *data, size_t size) override {
    std::memcpy(buffer.data() + used, data, size);
    used += size;
  }
};

// A document that is nothing but a text, so that no tags are written around it.
struct TextDocument {
  pugi::xml_document document;
  pugi::xml_node text;
  BufferWriter writer;

  explicit TextDocument(const std::string &value) : text(document.append_child(pugi::node_pcdata)) {
    Require(text.set_value(value.c_str()), "pugixml did not take a text");
  }

  void Print() {
    writer.used = 0;
    text.print(writer, "", pugi::format_raw | pugi::format_no_declaration);
  }
};

struct XMLDeleter {
  void operator()(xmlChar *block) const { xmlFree(block); }
};

void AddText(const std::string &name, const std::shared_ptr<const std::string> &text) {
  u32 needed = 0;
  Require(KCSUTF8StrToXMLUTF8Str(nullptr, &needed, nullptr, text->c_str()) == 0, "sizing failed on " + name);
  const auto buffer = std::make_shared<std::string>(needed, '\0');
  const auto ours = [text, buffer] {
    u32 size = static_cast<u32>(buffer->size());
    booln wasConverted = 0;
    benchmark::DoNotOptimize(KCSUTF8StrToXMLUTF8Str(buffer->data(), &size, &wasConverted, text->c_str()));
    benchmark::DoNotOptimize(wasConverted);
    return wasConverted;
  };
  const auto glib = [text] {
    gchar *const result = g_markup_escape_text(text->c_str(), -1);
    benchmark::DoNotOptimize(result);
    return std::unique_ptr<gchar, decltype(&g_free)>(result, g_free);
  };
  const auto libxml2 = [text] {
    xmlChar *const result = xmlEncodeSpecialChars(nullptr, reinterpret_cast<const xmlChar *>(text->c_str()));
    benchmark::DoNotOptimize(result);
    return std::unique_ptr<xmlChar, XMLDeleter>(result);
  };
  const auto document = std::make_shared<TextDocument>(*text);
  document->writer.buffer.resize(needed);
  const auto pugixml = [document] {
    document->Print();
    benchmark::DoNotOptimize(document->writer.used);
  };

  const std::string escaped = Escaped(*text, "\"&'<>");
  const bool wasConverted = ours() == 1;
  Require(*buffer == escaped + '\0' && wasConverted == (escaped != *text), "zebcs differs on " + name);
  Require(glib().get() == escaped, "GLib differs on " + name);
  Require(reinterpret_cast<const char *>(libxml2().get()) == Escaped(*text, "\"&<>"), "libxml2 differs on " + name);
  pugixml();
  document->writer.buffer.resize(document->writer.used);
  Require(document->writer.buffer == Escaped(*text, "&<>"), "pugixml differs on " + name);

  AddContender(name + "/zebcs", text->size(), ours);
  AddContender(name + "/glib", text->size(), glib);
  AddContender(name + "/libxml2", text->size(), libxml2);
  AddContender(name + "/pugixml", text->size(), pugixml);
}

}  // namespace

void AddXMLBenchmarks() {
  const struct {
    const char *name;
    size_t spacing;  // one special character in so many; 0 for none
    size_t first;    // where the first one stands, which is in the shortest text already
  } kinds[] = {{"plain", 0, 0}, {"few", 200, 20}, {"dense", 6, 5}};
  for (const auto &kind : kinds) {
    for (const size_t size : {32u, 1024u, 1u << 20}) {
      std::string text;
      for (size_t i = 0; i < size; ++i) {
        const bool isSpecial = kind.spacing != 0 && i % kind.spacing == kind.first;
        text += isSpecial ? "<&>\"'"[i / kind.spacing % 5] : static_cast<char>('a' + i % 26);
      }
      AddText("xml_escape/" + std::string(kind.name) + "/" + std::to_string(size),
              std::make_shared<const std::string>(std::move(text)));
    }
  }
}
