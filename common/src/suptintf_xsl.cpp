// Stylesheet paths: for an application, a type and a name, the file in the wanted language, or a stylesheet that puts
// the parts in that language together.
//
//   XSLROOT/APPLICATION/[template/][LANGUAGE/[COUNTRY/]]TYPE/NAME
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

#include "owners.h"
#include "zebcs/product.h"

namespace {

using std::string_view;

constexpr size_t kPathRoom = 256;
constexpr size_t kLongestLocaleCode = 5;  // "en_US"
constexpr string_view kFallbackLocale = "en_US";

enum class Form { kPlain, kTemplate };

bool Exists(const char *path) { return access(path, F_OK) == 0; }

bool IsMissing(const astring *pText) { return pText == nullptr || *pText == 0; }

// The stylesheets of one type in one application, and the path of the one that was looked at last.
class Stylesheets {
 public:
  Stylesheets(const astring *pAppPath, const astring *pType) : m_appPath(pAppPath), m_type(pType) {}

  // Makes the path of a stylesheet in the folders of a locale, or in none. What is too long is cut.
  const char *MakePath(const astring *pName, string_view folders, Form form) {
    char *end = m_path;
    for (const string_view piece :
         {string_view(m_appPath), string_view("/"), string_view(form == Form::kTemplate ? "template/" : ""), folders,
          string_view(folders.empty() ? "" : "/"), string_view(m_type), string_view("/"), string_view(pName)}) {
      end = std::copy_n(piece.data(), std::min(piece.size(), static_cast<size_t>(std::end(m_path) - 1 - end)), end);
    }
    *end = 0;
    return m_path;
  }

  // The path of a stylesheet in a locale's two folders or else in that of its language. Null when neither is there;
  // without `mustExist` the first of them will do.
  const char *FindInLocale(const astring *pName, string_view code, Form form, bool mustExist) {
    if (code.empty() || code.size() > kLongestLocaleCode) return nullptr;
    const size_t separator = code.find('_');
    if (separator != string_view::npos) {
      char folders[kLongestLocaleCode];
      std::copy(code.begin(), code.end(), folders);
      folders[separator] = '/';
      MakePath(pName, {folders, code.size()}, form);
      if (!mustExist || Exists(m_path)) return m_path;
    }
    const string_view language = code.substr(0, separator);
    if (language.empty()) return nullptr;
    MakePath(pName, language, form);
    return !mustExist || Exists(m_path) ? m_path : nullptr;
  }

 private:
  const astring *m_appPath;
  const astring *m_type;
  char m_path[kPathRoom];
};

// Writes a path as a URI to where there is room for it, three characters for each of the path's. Returns its end.
astring *PutURI(astring *pDest, string_view path) {
  for (const char c : path) {
    if (c == ' ') {
      pDest = std::copy_n("%20", 3, pDest);
    } else {
      *pDest++ = c == '\\' ? '/' : c;
    }
  }
  return pDest;
}

// A stylesheet in the making. One that does not fit comes to nothing: its start alone would be of no use.
class Wrapper {
 public:
  Wrapper() : m_text(MallocArray<astring>(kLongest + 1)) {}

  bool IsAllocated() const { return m_text != nullptr; }

  void Put(string_view piece) {
    m_fits = m_fits && piece.size() <= kLongest - m_length;
    if (!m_fits) return;
    std::copy(piece.begin(), piece.end(), m_text.get() + m_length);
    m_length += piece.size();
  }

  void PutInclude(const char *pPath) {
    astring uri[3 * kPathRoom];
    Put("<xsl:include href=\"");
    Put({uri, PutURI(uri, pPath)});
    Put("\" />");
  }

  astring *Release() {
    if (!m_fits) return nullptr;
    m_text.get()[m_length] = 0;
    return m_text.release();
  }

 private:
  static constexpr size_t kLongest = 512;

  MallocPtr<astring> m_text;
  size_t m_length = 0;
  bool m_fits = true;
};

}  // namespace

astring *SIGetXSLPath(const astring *pXSLRootAppPath, const astring *pType, const astring *pXSLName,
                      const astring *pLocaleCode, booln bUseTemplate, booln bValidate) {
  if (pXSLRootAppPath == nullptr || pType == nullptr || pXSLName == nullptr) return nullptr;
  Stylesheets sheets(pXSLRootAppPath, pType);
  const string_view folders = pLocaleCode == nullptr ? string_view() : string_view(pLocaleCode);
  const char *const path = sheets.MakePath(pXSLName, folders, bUseTemplate != 0 ? Form::kTemplate : Form::kPlain);
  return bValidate == 0 || Exists(path) ? NewText(path).release() : nullptr;
}

astring *SIGetXSLPathLocalePermutate(const astring *pXSLRootAppPath, const astring *pType, const astring *pXSLName,
                                     const astring *pLocaleCode, booln bUseTemplate, booln bValidate) {
  if (pXSLRootAppPath == nullptr || pType == nullptr || pXSLName == nullptr || pLocaleCode == nullptr) return nullptr;
  Stylesheets sheets(pXSLRootAppPath, pType);
  const char *const path =
      sheets.FindInLocale(pXSLName, pLocaleCode, bUseTemplate != 0 ? Form::kTemplate : Form::kPlain, bValidate != 0);
  return path == nullptr ? nullptr : NewText(path).release();
}

astring *ConvertPathToURI(const astring *filepath) {
  if (filepath == nullptr) return nullptr;
  const string_view path(filepath);
  const auto blanks = static_cast<size_t>(std::count(path.begin(), path.end(), ' '));
  MallocPtr<astring> uri = MallocArray<astring>(path.size() + 2 * blanks + 1);
  if (!uri) return nullptr;
  *PutURI(uri.get(), path) = 0;
  return uri.release();
}

astring *GetRelativePath(const astring *str, const astring *keyword) {
  if (str == nullptr || keyword == nullptr) return nullptr;
  return const_cast<astring *>(std::strstr(str, keyword));
}

// No path becomes a URI with backslashes, so that a console gets what everybody gets.
astring *SUPTIntfGetXSLPathLocale(const astring *pApp, const astring *pType, const astring *pXSLName,
                                  const astring *pLangCountryCode, u32 xslHeadTailMask, booln /*bIsConsole*/) {
  constexpr u32 kDeclaration = 2;
  constexpr u32 kStartTag = 4;
  constexpr u32 kEndTag = 8;
  if (IsMissing(pApp) || IsMissing(pType) || IsMissing(pXSLName)) return nullptr;
  string_view locale = IsMissing(pLangCountryCode) ? SUPTIntfGetLocaleName(0) : pLangCountryCode;
  if (locale.size() > kLongestLocaleCode) return nullptr;

  const MallocPtr<astring> root(SUPTIntfGetZEBXSLRootPath());
  if (!root) return nullptr;
  char appPath[kPathRoom];
  (void)std::snprintf(appPath, sizeof appPath, "%s/%s", root.get(), pApp);

  Stylesheets sheets(appPath, pType);
  const char *path = sheets.MakePath(pXSLName, "", Form::kTemplate);
  if (!Exists(path)) {
    path = sheets.FindInLocale(pXSLName, locale, Form::kPlain, true);
    return ConvertPathToURI(path != nullptr ? path : sheets.MakePath(pXSLName, "", Form::kPlain));
  }

  Wrapper wrapper;
  if (!wrapper.IsAllocated()) return nullptr;
  if ((xslHeadTailMask & kDeclaration) != 0) wrapper.Put(R"(<?xml version="1.0" encoding="UTF-8"?>)");
  if ((xslHeadTailMask & kStartTag) != 0) {
    wrapper.Put(R"(<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform")"
                R"( xmlns:fo="http://www.w3.org/1999/XSL/Format">)");
  }
  wrapper.PutInclude(path);
  // Kept: once the stylesheet was not found in the caller's language, the second search does not ask for that either;
  // a search of its own would be expected.
  for (const astring *const name : {pXSLName, "globals.xsl"}) {
    path = sheets.FindInLocale(name, locale, Form::kTemplate, true);
    if (path == nullptr && locale != kFallbackLocale) {
      locale = kFallbackLocale;
      path = sheets.FindInLocale(name, locale, Form::kTemplate, true);
    }
    if (path != nullptr) wrapper.PutInclude(path);
  }
  if ((xslHeadTailMask & kEndTag) != 0) wrapper.Put("</xsl:stylesheet>");
  return wrapper.Release();
}
