// Escaping for XML beside GLib, libxml2 and pugixml's writer: no special characters, a few, and dense ones.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <libxml/entities.h>
#include <libxml/xmlmemory.h>

#include <cstring>
#include <memory>
#include <pugixml.hpp>
#include <string>

#include "compare.h"
#include "zebcs/encoding.h"

namespace {

// Appends to a buffer that is large enough.
struct BufferWriter : pugi::xml_writer {
  std::string buffer;
  size_t used = 0;

  void write(const void *data, size_t size) override {
    std::memcpy(buffer.data() + used, data, size);
    used += size;
  }
};

struct Document {
  pugi::xml_document document;
  BufferWriter writer;

  void Print() {
    writer.used = 0;
    document.print(writer, "", pugi::format_raw | pugi::format_no_declaration);
  }
};

std::string Unescaped(std::string text) {
  const std::pair<const char *, const char *> entities[] = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&#39;", "'"}, {"&#34;", "\""}, {"&amp;", "&"}};
  std::string plain;
  for (size_t i = 0; i < text.size();) {
    bool isEntity = false;
    for (const auto &[entity, character] : entities) {
      if (text.compare(i, std::strlen(entity), entity) != 0) continue;
      plain += character;
      i += std::strlen(entity);
      isEntity = true;
      break;
    }
    if (!isEntity) plain += text[i++];
  }
  return plain;
}

template <class Escape>
void Add(const std::string &name, size_t bytes, Escape escape) {
  benchmark::RegisterBenchmark(name.c_str(), [escape, bytes](benchmark::State &state) {
    for (auto _ : state) escape();
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
  });
}

void AddText(const std::string &name, const std::shared_ptr<const std::string> &text) {
  u32 needed = 0;
  KCSUTF8StrToXMLUTF8Str(nullptr, &needed, nullptr, text->c_str());
  const auto buffer = std::make_shared<std::string>(needed, '\0');
  const auto ours = [text, buffer] {
    u32 size = static_cast<u32>(buffer->size());
    booln wasConverted = 0;
    benchmark::DoNotOptimize(KCSUTF8StrToXMLUTF8Str(buffer->data(), &size, &wasConverted, text->c_str()));
  };
  const auto glib = [text] {
    gchar *const result = g_markup_escape_text(text->c_str(), -1);
    benchmark::DoNotOptimize(result);
    return std::unique_ptr<gchar, decltype(&g_free)>(result, g_free);
  };
  const auto freeXML = [](xmlChar *block) { xmlFree(block); };
  const auto libxml2 = [text, freeXML] {
    xmlChar *const result = xmlEncodeSpecialChars(nullptr, reinterpret_cast<const xmlChar *>(text->c_str()));
    benchmark::DoNotOptimize(result);
    return std::unique_ptr<xmlChar, decltype(freeXML)>(result, freeXML);
  };
  const auto document = std::make_shared<Document>();
  document->document.append_child("a").append_child(pugi::node_pcdata).set_value(text->c_str());
  document->writer.buffer.resize(needed + 64);
  const auto pugixml = [document] { document->Print(); };

  ours();
  Require(Unescaped(buffer->c_str()) == *text, "zebcs differs on " + name);
  Require(Unescaped(glib().get()) == *text, "GLib differs on " + name);
  Require(Unescaped(reinterpret_cast<const char *>(libxml2().get())) == *text, "libxml2 differs on " + name);
  pugixml();
  Require(Unescaped(document->writer.buffer.substr(0, document->writer.used)) == "<a>" + *text + "</a>",
          "pugixml differs on " + name);
  Add(name + "/zebcs", text->size(), ours);
  Add(name + "/glib", text->size(), glib);
  Add(name + "/libxml2", text->size(), libxml2);
  Add(name + "/pugixml", text->size(), pugixml);
}

}  // namespace

void AddXMLBenchmarks() {
  const struct {
    const char *name;
    size_t spacing;  // one special character in so many; 0 for none
  } kinds[] = {{"plain", 0}, {"few", 200}, {"dense", 6}};
  for (const auto &kind : kinds) {
    for (const size_t size : {32u, 1024u, 1u << 20}) {
      std::string text;
      for (size_t i = 0; i < size; ++i) {
        const bool isSpecial = kind.spacing != 0 && i % kind.spacing == kind.spacing - 1;
        text += isSpecial ? "<&>\"'"[i / kind.spacing % 5] : static_cast<char>('a' + i % 26);
      }
      AddText("xml_escape/" + std::string(kind.name) + "/" + std::to_string(size),
              std::make_shared<const std::string>(std::move(text)));
    }
  }
}
