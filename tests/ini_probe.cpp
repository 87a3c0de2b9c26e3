// A client of the INI store that tests run under strace: one call between two marks, its status on standard output.
//
//   ini_probe read FILE SECTION KEY          also the value
//   ini_probe write FILE SECTION KEY VALUE
//   ini_probe remove FILE SECTION KEY
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "zebcs/ini.h"

namespace {

void Mark() {
  if (write(STDERR_FILENO, "MARK\n", 5) != 5) std::abort();
}

s32 Write(const char *file, const char *section, const char *key, const char *value) {
  const u32 size = value == nullptr ? 0 : static_cast<u32>(std::strlen(value) + 1);
  Mark();
  const s32 status = KCSWriteINIPathFileValue(section, key, ZEBCS_INI_ASTRING, value, size, file, 1);
  Mark();
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string_view what = argc > 1 ? argv[1] : "";
  if (what == "read" && argc == 5) {
    astring value[8193] = "";
    u32 size = sizeof value;
    Mark();
    const s32 status =
        KCSReadINIPathFileValue(argv[3], argv[4], ZEBCS_INI_ASTRING, value, &size, nullptr, 0, argv[2], 1);
    Mark();
    std::printf("%d %s\n", status, value);
  } else if (what == "write" && argc == 6) {
    std::printf("%d\n", Write(argv[2], argv[3], argv[4], argv[5]));
  } else if (what == "remove" && argc == 5) {
    std::printf("%d\n", Write(argv[2], argv[3], argv[4], nullptr));
  } else {
    return 2;
  }
  return 0;
}
