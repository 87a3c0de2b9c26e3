// A document written node by node beside libxml2's text writer, pugixml and fmt.
#include <benchmark/benchmark.h>
#include <fmt/compile.h>
#include <fmt/format.h>
#include <libxml/xmlwriter.h>

#include <charconv>
#include <memory>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "compare.h"
#include "contenders.h"
#include "zebcs/frame.h"
#include "zebcs/xmlbuf.h"

namespace {

// Each becomes an element with seven inside. Comments hold no quotes: not all contenders escape those.
struct Sensor {
  std::string index;
  std::string attributes;  // as text
  std::string name;
  u32 speed;
  s32 state;  // in hexadecimal
  booln isPresent;
  u64 total;
  std::string comment;
  std::string position;
};

using Sensors = std::vector<Sensor>;

constexpr size_t kNodesOfSensor = 8;

Sensors MakeSensors(u32 count) {
  const std::string comments[] = {"nothing to report", "speed < 1200 rpm & falling", "<unknown> -> see the manual",
                                  "within limits since the last start of the machine, no action was needed"};
  Sensors sensors;
  for (u32 i = 0; i < count; ++i) {
    Sensor &sensor = sensors.emplace_back();
    sensor.index = std::to_string(i);
    sensor.attributes = "index=\"" + sensor.index + "\" kind=\"fan\"";
    sensor.name = "System board fan " + sensor.index;
    sensor.speed = i * 7919 % 20000;
    sensor.state = i % 3 == 0 ? -1 - static_cast<s32>(i) : static_cast<s32>(i * 4099);
    sensor.isPresent = i % 5 == 0 ? 0 : 1;
    sensor.total = u64{i} * i * 0x123456789;
    sensor.comment = comments[i % 4];
    sensor.position = "tray " + std::to_string(i / 4);
  }
  return sensors;
}

// --- Contenders -----------------------------------------------------------------------------------------------------

astring *WriteByUs(const Sensors &sensors) {
  KCSSSAStr *const buffer = KCXAllocBuf(1024, 0);
  KCXBufCatBeginNode(buffer, "Sensors", nullptr);
  for (const Sensor &sensor : sensors) {
    KCXBufCatBeginNode(buffer, "Sensor", sensor.attributes.c_str());
    KCXBufCatNode(buffer, "Name", nullptr, KCX_ASTRING, sensor.name.c_str());
    KCXBufCatNode(buffer, "Speed", "unit=\"rpm\"", KCX_U32, &sensor.speed);
    KCXBufCatNodeT(buffer, "State", nullptr, KCX_S32, &sensor.state, 16);
    KCXBufCatNode(buffer, "Present", nullptr, KCX_BOOLN, &sensor.isPresent);
    KCXBufCatNode(buffer, "Total", nullptr, KCX_U64, &sensor.total);
    KCXBufCatNode(buffer, "Comment", nullptr, KCX_ASTRING_ESCAPED, sensor.comment.c_str());
    KCXBufCatNode(buffer, "Position", nullptr, KCX_ASTRING, sensor.position.c_str());
    KCXBufCatEndNode(buffer, "Sensor");
  }
  KCXBufCatEndNode(buffer, "Sensors");
  return KCXFreeBuf(buffer, 1);
}

// A number as terminated text, "0x" in front of a hexadecimal one.
class Digits {
 public:
  template <class Number>
  explicit Digits(Number number, int base = 10) {
    char *p = m_text;
    if (base == 16) *p++ = '0', *p++ = 'x';
    *std::to_chars(p, m_text + sizeof m_text, number, base).ptr = 0;
  }

  const char *c_str() const { return m_text; }

 private:
  char m_text[32];
};

const xmlChar *XML(const char *text) { return reinterpret_cast<const xmlChar *>(text); }

// Text that needs no escaping goes the short way, as it does with us.
void WriteRawElement(xmlTextWriterPtr writer, const char *name, const char *text) {
  xmlTextWriterStartElement(writer, XML(name));
  xmlTextWriterWriteRaw(writer, XML(text));
  xmlTextWriterEndElement(writer);
}

using XMLBuffer = std::unique_ptr<xmlBuffer, decltype(&xmlBufferFree)>;

XMLBuffer WriteByLibxml2(const Sensors &sensors) {
  XMLBuffer buffer(xmlBufferCreate(), xmlBufferFree);
  const xmlTextWriterPtr writer = xmlNewTextWriterMemory(buffer.get(), 0);
  xmlTextWriterStartElement(writer, XML("Sensors"));
  for (const Sensor &sensor : sensors) {
    xmlTextWriterStartElement(writer, XML("Sensor"));
    xmlTextWriterWriteAttribute(writer, XML("index"), XML(sensor.index.c_str()));
    xmlTextWriterWriteAttribute(writer, XML("kind"), XML("fan"));
    WriteRawElement(writer, "Name", sensor.name.c_str());
    xmlTextWriterStartElement(writer, XML("Speed"));
    xmlTextWriterWriteAttribute(writer, XML("unit"), XML("rpm"));
    xmlTextWriterWriteRaw(writer, XML(Digits(sensor.speed).c_str()));
    xmlTextWriterEndElement(writer);
    WriteRawElement(writer, "State", Digits(static_cast<u32>(sensor.state), 16).c_str());
    WriteRawElement(writer, "Present", sensor.isPresent == 1 ? "true" : "false");
    WriteRawElement(writer, "Total", Digits(sensor.total).c_str());
    xmlTextWriterWriteElement(writer, XML("Comment"), XML(sensor.comment.c_str()));
    WriteRawElement(writer, "Position", sensor.position.c_str());
    xmlTextWriterEndElement(writer);
  }
  xmlTextWriterEndElement(writer);
  xmlFreeTextWriter(writer);  // writes what it still holds
  return buffer;
}

struct StringWriter : pugi::xml_writer {
  std::string text;

  void write(const void *data, size_t size) override { text.append(static_cast<const char *>(data), size); }
};

std::string WriteByPugixml(const Sensors &sensors) {
  pugi::xml_document document;
  pugi::xml_node root = document.append_child("Sensors");
  for (const Sensor &sensor : sensors) {
    pugi::xml_node node = root.append_child("Sensor");
    node.append_attribute("index").set_value(sensor.index.c_str());
    node.append_attribute("kind").set_value("fan");
    node.append_child("Name").text().set(sensor.name.c_str());
    pugi::xml_node speed = node.append_child("Speed");
    speed.append_attribute("unit").set_value("rpm");
    speed.text().set(sensor.speed);
    node.append_child("State").text().set(Digits(static_cast<u32>(sensor.state), 16).c_str());
    node.append_child("Present").text().set(sensor.isPresent == 1);
    node.append_child("Total").text().set(sensor.total);
    node.append_child("Comment").text().set(sensor.comment.c_str());
    node.append_child("Position").text().set(sensor.position.c_str());
  }
  StringWriter writer;
  document.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
  return writer.text;
}

void AppendEscaped(fmt::memory_buffer &buffer, const std::string &text) {
  for (const char c : text) {
    switch (c) {
      case '"': buffer.append(std::string_view("&quot;")); break;
      case '&': buffer.append(std::string_view("&amp;")); break;
      case '\'': buffer.append(std::string_view("&apos;")); break;
      case '<': buffer.append(std::string_view("&lt;")); break;
      case '>': buffer.append(std::string_view("&gt;")); break;
      default: buffer.push_back(c); break;
    }
  }
}

fmt::memory_buffer WriteByFmt(const Sensors &sensors) {
  fmt::memory_buffer buffer;
  const auto out = fmt::appender(buffer);
  fmt::format_to(out, FMT_COMPILE("<Sensors>"));
  for (const Sensor &sensor : sensors) {
    fmt::format_to(out, FMT_COMPILE("<Sensor {}>"), sensor.attributes);
    fmt::format_to(out, FMT_COMPILE("<Name>{}</Name>"), sensor.name);
    fmt::format_to(out, FMT_COMPILE("<Speed unit=\"rpm\">{}</Speed>"), sensor.speed);
    fmt::format_to(out, FMT_COMPILE("<State>{:#x}</State>"), static_cast<u32>(sensor.state));
    fmt::format_to(out, FMT_COMPILE("<Present>{}</Present>"), sensor.isPresent == 1);
    fmt::format_to(out, FMT_COMPILE("<Total>{}</Total>"), sensor.total);
    fmt::format_to(out, FMT_COMPILE("<Comment>"));
    AppendEscaped(buffer, sensor.comment);
    fmt::format_to(out, FMT_COMPILE("</Comment><Position>{}</Position></Sensor>"), sensor.position);
  }
  fmt::format_to(out, FMT_COMPILE("</Sensors>"));
  return buffer;
}

void AddDocument(u32 count) {
  const auto sensors = std::make_shared<const Sensors>(MakeSensors(count));
  const std::string name = "xml_document/" + std::to_string(1 + count * kNodesOfSensor);

  astring *const text = WriteByUs(*sensors);
  Require(text != nullptr, "zebcs failed on " + name);
  const std::string ours = text;
  KCXFreeBufContent(text);
  Require(ours == fmt::to_string(WriteByFmt(*sensors)), "fmt differs on " + name);
  Require(ours == WriteByPugixml(*sensors), "pugixml differs on " + name);
  const XMLBuffer buffer = WriteByLibxml2(*sensors);
  Require(ours == reinterpret_cast<const char *>(xmlBufferContent(buffer.get())), "libxml2 differs on " + name);

  AddContender(name + "/zebcs", ours.size(), [sensors] {
    astring *const written = WriteByUs(*sensors);
    benchmark::DoNotOptimize(written);
    KCXFreeBufContent(written);
  });
  AddContender(name + "/fmt", ours.size(), [sensors] { benchmark::DoNotOptimize(WriteByFmt(*sensors)); });
  AddContender(name + "/pugixml", ours.size(), [sensors] { benchmark::DoNotOptimize(WriteByPugixml(*sensors)); });
  AddContender(name + "/libxml2", ours.size(), [sensors] { benchmark::DoNotOptimize(WriteByLibxml2(*sensors)); });
}

}  // namespace

void AddXMLBufBenchmarks() {
  AddDocument(1);
  AddDocument(125);
}
