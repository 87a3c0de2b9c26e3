#include "status.h"

#include "zebcs/net.h"

namespace {

struct Status {
  s32 value;
  const char *name;
};

constexpr Status kStatuses[] = {
    {SM_STATUS_SUCCESS, "SM_STATUS_SUCCESS"},
    {SM_STATUS_BAD_PARAMETER, "SM_STATUS_BAD_PARAMETER"},
    {SM_STATUS_NOT_FOUND, "SM_STATUS_NOT_FOUND"},
    {SM_STATUS_LOCK_TIMEOUT, "SM_STATUS_LOCK_TIMEOUT"},
    {SM_STATUS_INSUFFICIENT_BUFFER, "SM_STATUS_INSUFFICIENT_BUFFER"},
    {SM_STATUS_BUFFER_TOO_SMALL, "SM_STATUS_BUFFER_TOO_SMALL"},
    {SM_STATUS_NOT_LOADED, "SM_STATUS_NOT_LOADED"},
    {SM_STATUS_WRITE_FAILED, "SM_STATUS_WRITE_FAILED"},
    {SM_STATUS_FAILED, "SM_STATUS_FAILED"},
    {SM_STATUS_BAD_DATA, "SM_STATUS_BAD_DATA"},
    {SM_STATUS_RENAME_FAILED, "SM_STATUS_RENAME_FAILED"},
    {SM_STATUS_PATH_UNAVAILABLE, "SM_STATUS_PATH_UNAVAILABLE"},
    {SM_STATUS_PARSE_ERROR, "SM_STATUS_PARSE_ERROR"},
    {SM_STATUS_SECTION_NOT_FOUND, "SM_STATUS_SECTION_NOT_FOUND"},
    {SM_STATUS_KEY_NOT_FOUND, "SM_STATUS_KEY_NOT_FOUND"},
    {SM_STATUS_BAD_SIZE, "SM_STATUS_BAD_SIZE"},
    {SM_STATUS_DELETE_FAILED, "SM_STATUS_DELETE_FAILED"},
    {SM_STATUS_INVALID_INPUT, "SM_STATUS_INVALID_INPUT"},
    {SM_STATUS_NO_MEMORY, "SM_STATUS_NO_MEMORY"},
    {SM_STATUS_NULL_ADDRESS, "SM_STATUS_NULL_ADDRESS"},
};

}  // namespace

const char *NameOfStatus(s32 status) {
  for (const Status &known : kStatuses) {
    if (known.value == status) return known.name;
  }
  return nullptr;
}

std::string StatusText(s32 status) {
  const char *const name = NameOfStatus(status);
  const std::string number = std::to_string(status);
  return name == nullptr ? "status " + number : std::string(name) + " (" + number + ")";
}

bool IsAttached() {
  // The IP support of a process is loaded when it attaches, and says so when it has not been.
  u8 address[4];
  u32 size = sizeof address;
  return KCSIPAddrASCIIToNetwork("127.0.0.1", address, &size) != SM_STATUS_NOT_LOADED;
}
