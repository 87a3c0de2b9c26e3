// Product settings: directories, locale, and the settings kept in the product's INI files.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>

#include "cichar_xml.h"
#include "fork_guard.h"
#include "owners.h"
#include "zebcs/encoding.h"
#include "zebcs/ini.h"
#include "zebcs/product.h"

namespace {

using std::string_view;

constexpr size_t kPathRoom = 256;

// The install path, once it is known; the size counts the terminator and is 0 before.
std::mutex l_install_path_mutex;
[[maybe_unused]] const bool l_isPathKeptFree = KeepFreeInChildren(ForkOrder::kInstallPath, &l_install_path_mutex);
astring zebInstallPath[kPathRoom];
u32 zebInstallPathSize = 0;

s32 FindInstallPath() {
  zebInstallPathSize = sizeof zebInstallPath;
  const s32 status = OSInitZEBInstallPath(zebInstallPath, &zebInstallPathSize);
  if (status != SM_STATUS_SUCCESS) {
    zebInstallPath[0] = 0;
    zebInstallPathSize = 0;
  }
  return status;
}

bool IsInstallPathKnown() {
  const std::lock_guard lock(l_install_path_mutex);
  return zebInstallPathSize != 0 || FindInstallPath() == SM_STATUS_SUCCESS;
}

// A directory of the installation, with room for a caller to go on writing; NULL where that is not known.
astring *NewProductPath(string_view path) {
  return IsInstallPathKnown() ? NewText(path, kPathRoom).release() : nullptr;
}

// A product path that ends in the operating system's locale name.
astring *NewDocumentsPath(const char *pFolder) {
  const astring *const pLocale = SUPTIntfGetLocaleName(static_cast<u32>(GetLocalLanguageID()));
  char path[kPathRoom];
  (void)std::snprintf(path, sizeof path, "/opt/vorn/fleetops/var/lib/kelvestane/%s//zeb/docs/%s", pFolder, pLocale);
  return NewProductPath(path);
}

struct LocaleName {
  u32 languageId;
  const astring *pName;
};

constexpr std::array kLocaleNames = {
    LocaleName{1028, "zh_TW"},
    LocaleName{1031, "de"},
    LocaleName{1034, "es"},
    LocaleName{1036, "fr"},
    LocaleName{1041, "ja"},
    LocaleName{1046, "pt_BR"},
    LocaleName{2052, "zh"},
    LocaleName{2057, "en_GB"},
    // Kept: Korean has this identifier; 1042, its usual one, is not known.
    LocaleName{2066, "ko"},
};

string_view OSLocaleName() { return SUPTIntfGetLocaleName(static_cast<u32>(GetLocalLanguageID())); }

// The path of a product INI file; a longer one is cut. Returns whether the install path is known.
bool FormatProductINIPath(const astring *pFileName, char (&path)[kPathRoom]) {
  (void)std::snprintf(path, sizeof path, "/opt/vorn/fleetops/etc/kelvestane//zeb/ini/%s", pFileName);
  return IsInstallPathKnown();
}

}  // namespace

s32 SUPTIntfInitZEBInstallPath(void) {
  const std::lock_guard lock(l_install_path_mutex);
  return FindInstallPath();
}

astring *SUPTIntfGetZEBInstallPath(void) {
  const std::lock_guard lock(l_install_path_mutex);
  if (zebInstallPathSize == 0 && FindInstallPath() != SM_STATUS_SUCCESS) return nullptr;
  MallocPtr<astring> path = NewText(string_view(zebInstallPath, zebInstallPathSize - 1));
  if (!path) {
    zebInstallPath[0] = 0;
    zebInstallPathSize = 0;
  }
  return path.release();
}

astring *SUPTIntfGetProductInstallPath(void) {
  astring *const path = SUPTIntfGetZEBInstallPath();
  if (path == nullptr) return nullptr;
  astring *const slash = std::strrchr(path, '/');
  if (slash == nullptr || slash == path) {
    std::free(path);
    return nullptr;
  }
  *slash = 0;
  return path;
}

astring *SUPTIntfGetProductIniPath(void) { return NewText("/opt/vorn/fleetops/etc/kelvestane/").release(); }

astring *SUPTIntfGetProductVarPath(void) { return NewText("/opt/vorn/fleetops/var/lib/kelvestane/").release(); }

astring *SUPTIntfGetZEBUploadPath(void) {
  return NewText("/opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/upload", kPathRoom).release();
}

astring *SUPTIntfGetZEBDownloadPath(void) {
  return NewText("/opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/download", kPathRoom).release();
}

astring *SUPTIntfGetZEBXSLRootPath(void) { return NewProductPath("/opt/vorn/fleetops/var/lib/kelvestane/xslroot/"); }

astring *SUPTIntfGetZEBWWWRootPath(void) { return NewProductPath("/opt/vorn/fleetops/var/lib/kelvestane/wwwroot/"); }

astring *SUPTIntfGetZEBWEBDocsPath(void) { return NewDocumentsPath("wwwroot"); }

astring *SUPTIntfGetZEBCLIDocsPath(void) { return NewDocumentsPath("cliroot"); }

astring *SUPTIntfGetIWSTempDirPath(void) {
  constexpr char kPath[] = "/opt/vorn/fleetops/var/lib/kelvestane/iws/temp";
  return CreateDir(kPath) == SM_STATUS_SUCCESS ? NewProductPath(kPath) : nullptr;
}

astring *SUPTIntfGetOEMINIPathFile(const astring *pOEMDataDir, const astring *pINIFileName,
                                   const astring *brandingValue) {
  constexpr char kFormat[] = "/opt/vorn/fleetops/etc/kelvestane/wwwroot/oem/%s/ini/%s/%s";
  if (pOEMDataDir == nullptr || pINIFileName == nullptr || brandingValue == nullptr) return nullptr;
  const astring *const pBrand = string_view(brandingValue) == "0" ? "vorn" : "debrand";
  constexpr size_t kFixedRoom = 67;
  static_assert(kFixedRoom >= sizeof kFormat);
  const size_t room = std::strlen(pOEMDataDir) + std::strlen(pBrand) + std::strlen(pINIFileName) + kFixedRoom;
  MallocPtr<astring> path = MallocArray<astring>(room);
  if (!path) return nullptr;
  (void)std::snprintf(path.get(), room, kFormat, pOEMDataDir, pBrand, pINIFileName);  // fits
  return path.release();
}

const astring *SUPTIntfGetLocaleName(u32 languageId) {
  for (const LocaleName &locale : kLocaleNames) {
    if (locale.languageId == languageId) return locale.pName;
  }
  return "en_US";
}

astring *SUPTIntfGetLocaleNameAStr(u32 languageId) { return NewText(SUPTIntfGetLocaleName(languageId)).release(); }

astring *SUPTIntfGetOSLocaleName(void) { return NewText(OSLocaleName()).release(); }

astring *SUPTIntfGetOSLanguage(void) {
  const string_view name = OSLocaleName();
  const size_t separator = name.find('_');
  return separator == string_view::npos ? nullptr : NewText(name.substr(0, separator), kPathRoom).release();
}

astring *SUPTIntfGetOSCountry(void) {
  const string_view name = OSLocaleName();
  const size_t separator = name.find('_');
  return separator == string_view::npos ? nullptr : NewText(name.substr(separator + 1), kPathRoom).release();
}

s32 SUPTIntfReadINIFileValue(const astring *pSection, const astring *pKey, u32 vType, void *pValue, u32 *pvSize,
                             const void *pDefault, u32 dSize, const astring *pFileName, booln canBlock) {
  char path[kPathRoom];
  if (pFileName == nullptr) return SM_STATUS_BAD_PARAMETER;
  if (!FormatProductINIPath(pFileName, path)) return -1;
  return ReadINIPathFileValue(pSection, pKey, vType, pValue, pvSize, pDefault, dSize, path, canBlock);
}

s32 SUPTIntfWriteINIFileValue(const astring *pSection, const astring *pKey, u32 vType, const void *pValue, u32 vSize,
                              const astring *pFileName, booln canBlock) {
  char path[kPathRoom];
  if (pFileName == nullptr) return SM_STATUS_BAD_PARAMETER;
  if (!FormatProductINIPath(pFileName, path)) return -1;
  return WriteINIPathFileValue(pSection, pKey, vType, pValue, vSize, path, canBlock);
}

astring *KCSGetOEMADSchemaPrefix(void) {
  constexpr u32 kRoom = 256;
  constexpr astring kDefault[] = "vorn";
  MallocPtr<astring> prefix = MallocArray<astring>(kRoom);
  if (!prefix) return nullptr;
  std::memcpy(prefix.get(), kDefault, sizeof kDefault);
  u32 size = kRoom;
  // Whatever came of it, the block holds what there is to say.
  (void)SUPTIntfReadINIFileValue("data", "adschemaprefix", ZEBCS_INI_ASTRING, prefix.get(), &size, kDefault,
                                 sizeof kDefault, "oem.ini", 1);
  return prefix.release();
}

booln KCSCheckModularChassis(void) {
  astring value[8193];
  u32 size = sizeof value;
  const s32 status =
      SUPTIntfReadINIFileValue("blade", "blade", ZEBCS_INI_ASTRING, value, &size, nullptr, 0, "qxcli32.ini", 1);
  return status == SM_STATUS_SUCCESS && string_view(value) == "true" ? 1 : 0;
}

astring *SUPTIntfGetXMLUTF8StrFromAStr(const astring *pStr, u32 passes) { return EscapedXML(pStr, passes).release(); }

astring *SUPTIntfGetXMLUTF8StrFromUStr(const ustring *pStr, u32 passes) { return EscapedXML(pStr, passes).release(); }
