// Where the product is installed on this platform.
#include <cstring>

#include "zebcs/product.h"

namespace {
constexpr char kInstallPath[] = "/opt/vorn/fleetops/";
}

s32 OSInitZEBInstallPath(astring *pDest, u32 *pSize) {
  if (pDest == nullptr || pSize == nullptr) return SM_STATUS_BAD_PARAMETER;
  const u32 room = *pSize;
  *pSize = sizeof kInstallPath;
  if (room < sizeof kInstallPath) return SM_STATUS_BUFFER_TOO_SMALL;
  std::memset(pDest, 0, room);
  std::memcpy(pDest, kInstallPath, sizeof kInstallPath);
  return SM_STATUS_SUCCESS;
}
