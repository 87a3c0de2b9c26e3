// Stylesheets looked up in a small tree of files, beside the order of the search written out. What makes a path out of
// what it is given is asked with anything.
#include <unistd.h>

#include <optional>
#include <vector>

#include "fuzzer.h"
#include "sandbox.h"
#include "zebcs/frame.h"
#include "zebcs/product.h"

namespace {

using Path = std::optional<std::string>;

constexpr size_t kLongestPath = 255;
constexpr size_t kLongestStylesheet = 512;
constexpr const char *kRoot = "/opt/vorn/fleetops/var/lib/kelvestane/xslroot/";

// The tree: an application without templates, one with them in some languages, and one with a blank in its name.
void MakeTree() {
  constexpr const char *kFiles[] = {
      "plain/web/main.xsl",
      "plain/en/US/web/main.xsl",
      "plain/en/web/list.xsl",
      "plain/de/web/main.xsl",
      "plain/pt/BR/web/main.xsl",
      "full/template/web/main.xsl",
      "full/template/web/list.xsl",
      "full/template/en/US/web/main.xsl",
      "full/template/en/US/web/globals.xsl",
      "full/template/en/web/list.xsl",
      "full/template/pt/web/main.xsl",
      "full/template/de/web/globals.xsl",
      "full/template/fr/CA/web/main.xsl",
      "full/template/fr/web/globals.xsl",
      "two words/template/web/main.xsl",
      "two words/template/en/web/main.xsl",
  };
  sandbox::RequireSandbox();
  for (const std::string file : kFiles) {
    const std::string path = std::string(kRoot) + "/" + file;
    FUZZ_CHECK(sandbox::MakeDirectories(path.substr(0, path.rfind('/'))) && sandbox::WriteFile(path, "x"));
  }
}

std::string PathOf(const std::string &app, const std::string &type, const std::string &name, const std::string &folders,
                   bool isTemplate) {
  const std::string path =
      app + "/" + (isTemplate ? "template/" : "") + folders + (folders.empty() ? "" : "/") + type + "/" + name;
  return path.substr(0, kLongestPath);
}

bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

Path Find(const std::string &app, const std::string &type, const std::string &name, const std::string &code,
          bool isTemplate, bool mustExist) {
  if (code.empty() || code.size() > 5) return std::nullopt;
  std::vector<std::string> candidates;
  const size_t separator = code.find('_');
  if (separator != std::string::npos) candidates.push_back(std::string(code).replace(separator, 1, "/"));
  if (separator != 0) candidates.push_back(code.substr(0, separator));
  for (const std::string &folders : candidates) {
    const std::string path = PathOf(app, type, name, folders, isTemplate);
    if (!mustExist || Exists(path)) return path;
  }
  return std::nullopt;
}

std::string URIOf(const std::string &path) {
  std::string uri;
  for (const char c : path) uri += c == ' ' ? std::string("%20") : std::string(1, c == '\\' ? '/' : c);
  return uri;
}

Path Stylesheet(const std::string &appName, const std::string &type, const std::string &name, std::string code,
                u32 mask) {
  if (appName.empty() || type.empty() || name.empty() || code.size() > 5) return std::nullopt;
  if (code.empty()) code = "en_US";
  const std::string app = (std::string(kRoot) + "/" + appName).substr(0, kLongestPath);
  const std::string base = PathOf(app, type, name, "", true);
  if (!Exists(base)) {
    return URIOf(Find(app, type, name, code, false, true).value_or(PathOf(app, type, name, "", false)));
  }
  const auto include = [](const std::string &path) { return "<xsl:include href=\"" + URIOf(path) + "\" />"; };
  std::string text;
  if ((mask & 2) != 0) text += R"(<?xml version="1.0" encoding="UTF-8"?>)";
  if ((mask & 4) != 0) {
    text += R"(<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform")"
            R"( xmlns:fo="http://www.w3.org/1999/XSL/Format">)";
  }
  text += include(base);
  Path localized = Find(app, type, name, code, true, true);
  if (!localized) {
    code = "en_US";  // from here on
    localized = Find(app, type, name, code, true, true);
  }
  if (localized) text += include(*localized);
  Path globals = Find(app, type, "globals.xsl", code, true, true);
  if (!globals) globals = Find(app, type, "globals.xsl", "en_US", true, true);
  if (globals) text += include(*globals);
  if ((mask & 8) != 0) text += "</xsl:stylesheet>";
  return text.size() <= kLongestStylesheet ? Path(text) : std::nullopt;
}

void CheckAnswer(astring *answer, const Path &expected) {
  FUZZ_CHECK((answer != nullptr) == expected.has_value());
  if (answer != nullptr) FUZZ_CHECK(answer == *expected);
  KCSFreeMem(answer);
}

// One of some names, which are found or nearly so, or what the input says.
template <size_t kCount>
std::string Choose(FuzzInput &input, const char *const (&names)[kCount]) {
  const size_t choice = input.Take<u8>();
  return choice < 192 ? names[choice % kCount] : input.TakeText();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool l_hasTree = [] {
    MakeTree();
    return true;
  }();
  FUZZ_CHECK(l_hasTree);
  constexpr const char *kApps[] = {"plain", "full", "two words", "none", "full/template/.."};
  constexpr const char *kTypes[] = {"web", "template/web", "print", "web\\x", "."};
  constexpr const char *kNames[] = {"main.xsl", "list.xsl", "globals.xsl", "main\\.xsl", "a b"};
  constexpr const char *kCodes[] = {"en_US", "pt_BR", "de", "fr_CA", "", "fr", "de_AT", "en", "en_USA", "_US", "de_"};

  FuzzInput input(data, size);
  const auto choice = input.Take<u8>();
  const std::string app = Choose(input, kApps);
  const std::string type = Choose(input, kTypes);
  const std::string name = Choose(input, kNames);
  const std::string code = Choose(input, kCodes);
  const bool isTemplate = (choice & 0x10) != 0;
  const bool mustExist = (choice & 0x20) != 0;
  const bool isConsole = (choice & 0x40) != 0;
  const astring *const pCode = code.empty() && (choice & 0x80) != 0 ? nullptr : code.c_str();

  Path expected = Stylesheet(app, type, name, code, choice);
  if (expected && isConsole) std::replace(expected->begin(), expected->end(), '\\', '/');
  CheckAnswer(KCSGetXSLPathLocale(app.c_str(), type.c_str(), name.c_str(), pCode, choice, isConsole ? 1 : 0), expected);

  const std::string root = std::string(kRoot) + "/" + app;
  const std::string path = PathOf(root, type, name, code, isTemplate);
  CheckAnswer(SIGetXSLPath(root.c_str(), type.c_str(), name.c_str(), pCode, isTemplate ? 1 : 0, mustExist ? 1 : 0),
              !mustExist || Exists(path) ? Path(path) : std::nullopt);
  CheckAnswer(SIGetXSLPathLocalePermutate(root.c_str(), type.c_str(), name.c_str(), pCode, isTemplate ? 1 : 0,
                                          mustExist ? 1 : 0),
              Find(root, type, name, code, isTemplate, mustExist));
  // Nothing in front of it: what is given is the whole path, whether or not it leads anywhere.
  CheckAnswer(SIGetXSLPath(app.c_str(), type.c_str(), name.c_str(), pCode, isTemplate ? 1 : 0, 0),
              PathOf(app, type, name, code, isTemplate));

  const std::string rest = input.TakeText();
  for (const std::string &text : {path, rest}) CheckAnswer(ConvertPathToURI(text.c_str()), URIOf(text));
  const std::string keyword = input.TakeText();
  for (const std::string &text : {type, keyword, std::string("template")}) {
    const size_t place = rest.find(text);
    const astring *const found = GetRelativePath(rest.c_str(), text.c_str());
    FUZZ_CHECK(found == (place == std::string::npos ? nullptr : rest.c_str() + place));
  }
  return 0;
}
