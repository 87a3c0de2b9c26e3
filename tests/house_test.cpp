// The rules of the house that a compiler does not check: includes point down, and nobody inside calls the roof.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// The floor of each unit; a unit may include what stands on a lower floor. Public headers have the floor of the
// lowest unit that implements them, and helpers may be included from everywhere.
const std::map<std::string, int> kFloors = {
    {"zebcs/types.h", 0},    {"zebcs/ipc.h", 0},
    {"zebcs/number.h", 0},   {"zebcs/unistr.h", 0},
    {"owners.h", 0},         {"blocks.h", 0},
    {"size_protocol.h", 0},  {"cichar_encoding.h", 2},
    {"fork_guard", 0},       {"line_file", 1},        {"lxipc", 1},
    {"lxstring", 1},         {"lxconv", 1},
    {"zebcs/frame.h", 1},    {"zebsupt_base", 2},
    {"file_lock", 2},        {"export_context.h", 3},
    {"zebcs/product.h", 2},  {"locale_text", 0},
    {"accounts", 1},         {"zebcs/auth.h", 1},
    {"qxauth_identity", 2},  {"zebcs/encoding.h", 2},
    {"zebcs/param.h", 2},    {"lxsupt", 3},
    {"cichar_string", 3},    {"cichar_encoding", 3},
    {"cichar_transcode", 3}, {"cichar_xml", 3},
    {"cichar_number", 3},    {"cichar_param", 3},
    {"zebcs/hashid.h", 0},   {"hashid", 3},
    {"zebcs/list.h", 2},     {"lnklst", 3},
    {"zebcs/xmlbuf.h", 3},   {"zebcs/ini.h", 3},
    {"zebcs/net.h", 3},      {"ipsupt", 4},
    {"csxmlsup", 4},         {"xml_buffer_owner.h", 4},
    {"pstore", 4},           {"zebcs/dasupport.h", 4},
    {"dasupt", 5},           {"suptintf", 5},
    {"zebcs/keyvalue.h", 5}, {"zebcs/logs.h", 5},
    {"cfgutil", 6},          {"evtlog", 6},
    {"initcmdlogsize", 7},   {"zebcs/rolemap.hpp", 7},
    {"rolemap", 8},          {"zebcs/rolemap.h", 8},
    {"rolemap_rights", 9},   {"qxauth", 10},
    {"zebsupt", 10},         {"dacsexp", 10},
    {"zebcsexp", 10},        {"zebcs/zebcs.h", 9},
    {"zebcs/system.h", 0},   {"webserv", 1},
    {"unitext", 4},          {"suptintf_xsl", 5},
};

std::string Read(const fs::path &path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<fs::path> Sources() {
  std::vector<fs::path> sources;
  for (const char *folder : {"common/src", "linux"}) {
    for (const auto &entry : fs::recursive_directory_iterator(fs::path(ZEBCS_SOURCE_DIR) / folder)) {
      const std::string extension = entry.path().extension();
      if (extension == ".cpp" || extension == ".h") sources.push_back(entry.path());
    }
  }
  return sources;
}

// The name under which the table has a unit or header; a unit's own header is the unit.
std::string UnitOf(const std::string &name) {
  if (kFloors.contains(name)) return name;
  return fs::path(name).stem();
}

}  // namespace

TEST(House, IncludesPointDown) {
  const std::vector<fs::path> sources = Sources();
  ASSERT_GT(sources.size(), 10u);
  const std::regex include("#include \"([^\"]+)\"");
  for (const fs::path &source : sources) {
    const std::string unit = UnitOf(source.filename());
    ASSERT_TRUE(kFloors.contains(unit)) << source << " has no floor";
    const std::string text = Read(source);
    for (std::sregex_iterator match(text.begin(), text.end(), include), end; match != end; ++match) {
      const std::string included = UnitOf((*match)[1]);
      ASSERT_TRUE(kFloors.contains(included)) << source << " includes " << included << ", which has no floor";
      if (included == unit) continue;
      EXPECT_TRUE(kFloors.at(included) < kFloors.at(unit) || kFloors.at(unit) == 0)
          << source << " on floor " << kFloors.at(unit) << " includes " << included << " on floor "
          << kFloors.at(included);
    }
  }
}

TEST(House, LibcryptoAndLibpamHaveOneUnitEach) {
  const std::map<std::string, std::string> owners = {
      {"<openssl/", "ipsupt"}, {"<security/", "qxauth"}, {"<dlfcn.h>", "lxsupt"}};
  for (const fs::path &source : Sources()) {
    const std::string text = Read(source);
    for (const auto &[header, owner] : owners) {
      if (source.stem() == owner) continue;
      EXPECT_EQ(text.find("#include " + header), std::string::npos) << source << " includes " << header;
    }
  }
}

TEST(House, NobodyInsideCallsTheForwarders) {
  const std::regex call("\\bKCS[A-Z]\\w*\\(");
  const std::regex definition("\\n[^\\n ][^\\n]*\\bKCS[A-Z]\\w*\\(");
  for (const fs::path &source : Sources()) {
    if (source.stem() == "zebcsexp" || source.stem() == "dacsexp") continue;
    const std::string text = Read(source);
    const auto count = [&text](const std::regex &what) {
      return std::distance(std::sregex_iterator(text.begin(), text.end(), what), std::sregex_iterator());
    };
    EXPECT_EQ(count(call), count(definition)) << source << " calls a KCS function";
  }
}
