// The rights entry points: the role map, loaded when it has changed, asked for a user's rights.
#include "zebcs/rolemap.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "fork_guard.h"
#include "locale_text.h"
#include "owners.h"
#include "xml_buffer_owner.h"
#include "zebcs/auth.h"
#include "zebcs/dasupport.h"
#include "zebcs/ini.h"
#include "zebcs/logs.h"
#include "zebcs/net.h"
#include "zebcs/product.h"
#include "zebcs/rolemap.hpp"

namespace {

constexpr char LINE_PARAM[] = "line";

constexpr u32 kPrivilegeBits = 0xFFFF;
constexpr s32 kUser = ZEBCS_RIGHTS_USER;
constexpr s32 kAdministrator = ZEBCS_RIGHTS_ADMINISTRATOR;

// Tells the command log what is wrong with the role map. That it cannot be told does not keep anybody waiting.
void Report(const ZEBRoleMapFileReaderException &error) {
  constexpr u16 kWarning = 2;
  astring line[24];
  *std::to_chars(line, line + sizeof line, error.GetLineNumber()).ptr = 0;
  const XMLBufferPtr description(KCXAllocBuf(256, 0));
  if (!description) return;
  (void)DASuptBufCatSetCmdParam(description.get(), LINE_PARAM, nullptr, nullptr, line, KCX_ASTRING_ESCAPED);
  (void)SUPTIntfAppendToCmdLog(static_cast<u32>(error.MapErrorCodeToCmdId()), "root", "ZEBSERVER",
                               description.get()->pStr, kWarning);
}

std::mutex l_loadMutex;
[[maybe_unused]] const bool l_isLoadKeptFree = KeepFreeInChildren(ForkOrder::kRoleMapLoad, &l_loadMutex);

enum class Step { kOpen, kOpenAndRead, kRead };

// Takes the steps of a load. The records are the reader's until the next load, so that loads exclude each other; what
// looks up meanwhile does it in the tables of the load before.
void LoadRolemap(Step step) {
  std::optional<ZEBRoleMapFileReaderException> failure;
  {
    const std::lock_guard lock(l_loadMutex);
    QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
    ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
    try {
      if (step != Step::kRead) reader.Open();
      if (step != Step::kOpen) algorithm.Initialize(reader.GetRecords());
    } catch (const ZEBRoleMapFileReaderException &error) {
      failure = error;
      algorithm.Initialize(reader.GetDefaultRecords());
    }
  }
  if (failure) Report(*failure);  // waits for a lock of its own
}

// This machine's name, empty when it cannot be had.
class ThisHost {
 public:
  ThisHost() {
    u32 size = sizeof m_name;
    if (GetIPHostName(m_name, &size) != SM_STATUS_SUCCESS) m_name[0] = 0;
  }
  const astring *Name() const { return m_name; }

 private:
  astring m_name[65] = "";
};

// What the role map grants a user. Names that are not valid in the locale match no rule.
s32 RolemapPrivilege(const char *pUser, const char *pHost) {
  std::optional<std::wstring> user = Widened(pUser);
  const std::optional<std::wstring> host = Widened(pHost);
  if (!user || !host) return 0;
  ZEBRole role{std::move(*user), Lowered(*host), 0};
  ZEBRoleMapAlgorithm::GetInstance().GetUserPrivileges(role);
  return role.nPerm;
}

// What the operating system grants an account, as far as it matters beside the role map's privilege: groups are asked
// for only where they can raise it.
s32 OSPrivilege(const char *pUser, s32 rolemapPrivilege) {
  if (rolemapPrivilege == kUser) return ZEBRoleMapAlgorithm::GetInstance().GetOSPrivilege(pUser);
  return isuserroot(pUser) == 0 ? kAdministrator : 0;
}

// Ends a text at a separator. Returns what is behind it, which ends at a further one.
astring *SplitAt(astring *pSeparator) {
  const astring separator = std::exchange(*pSeparator, '\0');
  astring *const rest = pSeparator + 1;
  if (astring *const further = std::strchr(rest, separator)) *further = 0;
  return rest;
}

// What the role map grants the user that a text such as "name@host" names, which is taken apart in place.
s32 RolemapPrivilegeOf(astring *pUserSpec) {
  if (astring *const at = std::strchr(pUserSpec, '@')) {
    const astring *const host = SplitAt(at);
    return RolemapPrivilege(pUserSpec, host);
  }
  if (astring *const backslash = std::strchr(pUserSpec, '\\')) {
    // Kept: the text ends with the host now, so that the operating system is asked about an account of that name.
    const astring *const user = SplitAt(backslash);
    return RolemapPrivilege(user, pUserSpec);
  }
  return RolemapPrivilege(pUserSpec, ThisHost().Name());
}

// Reads a text of an INI file. False when there is none.
template <size_t kRoom>
bool ReadText(const astring *pSection, const astring *pKey, const astring *pPath, astring (&text)[kRoom]) {
  u32 size = kRoom;
  return ReadINIPathFileValue(pSection, pKey, ZEBCS_INI_ASTRING, text, &size, "", 1, pPath, 1) == SM_STATUS_SUCCESS;
}

// The path of a program's settings of the brand, as a new text; null when there is none.
MallocPtr<astring> BrandPath(const astring *pszProgram, const astring *pszAppIni) {
  constexpr char kSuffix[] = "oem.ini";
  astring name[256];
  if (!ReadText("OEM", "name", pszAppIni, name)) return nullptr;
  const size_t length = std::strlen(pszProgram);
  const MallocPtr<astring> fileName = MallocArray<astring>(length + sizeof kSuffix);
  if (!fileName) return nullptr;
  std::memcpy(fileName.get(), pszProgram, length);
  std::memcpy(fileName.get() + length, kSuffix, sizeof kSuffix);
  return MallocPtr<astring>(SUPTIntfGetOEMINIPathFile(name, fileName.get(), "0"));
}

// Narrows a privilege. The failure index is told where nothing is left of it.
u32 Masked(u32 privilege, s32 mask, u32 &failureIndex) {
  constexpr s32 kAllBits = 3;
  if (privilege == ZEBCS_RIGHTS_USER && mask != kAllBits) {
    failureIndex = 1001;
    return ZEBCS_RIGHTS_NONE;
  }
  // Kept: a negative mask such as -1 leaves a power user as he is, by its two low bits.
  if (privilege == ZEBCS_RIGHTS_POWER_USER && mask < 2) {
    const u32 bits = static_cast<u32>(mask) & kAllBits;
    if (bits == 0) failureIndex = 1002;
    return bits;
  }
  return privilege;
}

// Runs what may throw. Rights that cannot be told are none.
template <class Function>
u32 RightsOrNone(Function function) {
  try {
    return function();
  } catch (...) {
    return ZEBCS_RIGHTS_NONE;
  }
}

}  // namespace

u32 get_user_rights(astring *userSpec) {
  if (userSpec == nullptr) return ZEBCS_RIGHTS_NONE;
  return RightsOrNone([userSpec] {
    LoadRolemap(Step::kOpenAndRead);
    const s32 granted = RolemapPrivilegeOf(userSpec);
    const s32 own = OSPrivilege(userSpec, granted);
    if (own == kAdministrator) return ZEBCS_RIGHTS_SUPERUSER;
    return granted == 0 ? ZEBCS_RIGHTS_NONE : static_cast<u32>(std::max(granted, own));
  });
}

u32 OSOpenRolemapFile(void) {
  return RightsOrNone([] {
    LoadRolemap(Step::kOpen);
    return 0u;
  });
}

u32 OSGetRightsUsingRolemap(void) {
  const MallocPtr<astring> user(OSGetProcessUser());
  if (!user) return ZEBCS_RIGHTS_NONE;
  return RightsOrNone([&user] {
    LoadRolemap(Step::kRead);
    const s32 granted = RolemapPrivilege(user.get(), ThisHost().Name());
    if (granted != 0) return static_cast<u32>(granted);
    return isuserroot(user.get()) == 0 ? ZEBCS_RIGHTS_ADMINISTRATOR : ZEBCS_RIGHTS_NONE;
  });
}

u32 KCSMaskProgramRights(u32 uRights, const astring *pszProgram, const astring *pszAppIni, u32 *nFailureIndex) {
  if ((uRights & kPrivilegeBits) == ZEBCS_RIGHTS_ADMINISTRATOR) return uRights;
  if (pszProgram == nullptr || pszAppIni == nullptr) return ZEBCS_RIGHTS_NONE;
  const MallocPtr<astring> path = BrandPath(pszProgram, pszAppIni);
  if (!path) return ZEBCS_RIGHTS_NONE;
  astring override[8192];
  // Kept: the override drops the high bits, which every other way out keeps.
  if (ReadText("data", "accessoverride", path.get(), override) && std::string_view(override) == "true") {
    return ZEBCS_RIGHTS_ADMINISTRATOR;
  }
  s32 mask = 0;
  u32 size = sizeof mask;
  if (ReadINIPathFileValue("data", "accessmask", ZEBCS_INI_S32, &mask, &size, nullptr, 0, path.get(), 1) !=
      SM_STATUS_SUCCESS) {
    return ZEBCS_RIGHTS_NONE;
  }
  u32 failureIndex = 0;
  const u32 privilege = Masked(uRights & kPrivilegeBits, mask, failureIndex);
  if (failureIndex != 0 && nFailureIndex != nullptr) *nFailureIndex = failureIndex;
  return (uRights & ~kPrivilegeBits) | privilege;
}
