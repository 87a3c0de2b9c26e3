// Asking for a user's rights, beside the account look-ups that the answer takes and beside a PAM transaction that asks
// pam_access about an equivalent file.
#include <grp.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <string>

#include "compare.h"
#include "contenders.h"
#include "zebcs/rolemap.h"

namespace {

constexpr char kFile[] = "/opt/vorn/fleetops/etc/zebrolemap";
constexpr char kAccessFile[] = "/etc/bench-access.conf";
constexpr int kUsers = 200;  // in the account database, and as many rules

u32 RightsOf(const char *user) {
  char text[64];
  std::strcpy(text, user);
  return get_user_rights(text);
}

// The rules grant user7 in person, and user8 as one of a group only.
void WriteFiles() {
  std::ofstream passwd("/etc/passwd", std::ios::app);
  std::ofstream group("/etc/group", std::ios::app);
  std::ofstream rolemap(kFile);
  std::ofstream access(kAccessFile);
  for (int i = 0; i < kUsers; ++i) {
    const std::string user = "user" + std::to_string(i);
    passwd << user << ":x:" << 5000 + i << ":" << 5000 + i % 20 << "::/:/bin/false\n";
    if (i < 20) group << "crew" << i << ":x:" << 5000 + i << ":\n";
    if (i == 8) continue;
    rolemap << user << " * poweruser\n";
    access << "+:" << user << ":ALL\n";
  }
  rolemap << "+crew8 * poweruser\n";
  access << "+:(crew8):ALL\n-:ALL:ALL\n";
  std::ofstream("/etc/pam.d/bench")
      << "auth required pam_permit.so\naccount required pam_access.so nodefgroup accessfile=" << kAccessFile << '\n';
  rolemap.close();
  Require(chmod(kFile, 0640) == 0, "the role map's mode cannot be set");
}

void FindAccount(const char *name) {
  char memory[4096];
  passwd entry{};
  passwd *found = nullptr;
  Require(getpwnam_r(name, &entry, memory, sizeof memory, &found) == 0 && found != nullptr, "an account is missing");
}

void FindGroups(const char *name) {
  char memory[4096];
  passwd entry{};
  passwd *found = nullptr;
  Require(getpwnam_r(name, &entry, memory, sizeof memory, &found) == 0 && found != nullptr, "an account is missing");
  gid_t ids[100];
  int count = 100;
  getgrouplist(found->pw_name, found->pw_gid, ids, &count);
  for (int i = 0; i < count; ++i) {
    group groupEntry{};
    group *foundGroup = nullptr;
    getgrgid_r(ids[i], &groupEntry, memory, sizeof memory, &foundGroup);
  }
}

int Converse(int, const pam_message **, pam_response **, void *) { return PAM_CONV_ERR; }

bool IsAdmitted(const char *name) {
  const pam_conv conversation{Converse, nullptr};
  pam_handle_t *handle = nullptr;
  if (pam_start("bench", name, &conversation, &handle) != PAM_SUCCESS) return false;
  const int result = pam_acct_mgmt(handle, 0);
  pam_end(handle, result);
  return result == PAM_SUCCESS;
}

}  // namespace

void AddRightsBenchmarks() {
  WriteFiles();
  Require(RightsOf("user7@host") == 3 && RightsOf("user8@host") == 3 && RightsOf("user0@host") == 3 &&
              RightsOf("nobody@host") == 0,
          "rights differ");
  Require(IsAdmitted("user7") && IsAdmitted("user8") && !IsAdmitted("nobody"), "pam_access differs");
  AddContender("rights_of_user/zebcs", 0, [] { benchmark::DoNotOptimize(RightsOf("user7@host")); });
  AddContender("rights_of_user/account", 0, [] { FindAccount("user7"); });
  AddContender("rights_of_user/pam_access", 0, [] { benchmark::DoNotOptimize(IsAdmitted("user7")); });
  AddContender("rights_by_group/zebcs", 0, [] { benchmark::DoNotOptimize(RightsOf("user8@host")); });
  AddContender("rights_by_group/groups", 0, [] { FindGroups("user8"); });
  AddContender("rights_by_group/pam_access", 0, [] { benchmark::DoNotOptimize(IsAdmitted("user8")); });
}
