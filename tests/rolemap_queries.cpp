// A program that asks the same question twice, for a trace of the system calls that the second answer takes.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "zebcs/rolemap.hpp"

namespace {

void Mark() {
  if (write(STDERR_FILENO, "MARK\n", 5) != 5) std::abort();
}

s32 Ask() {
  QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
  ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
  reader.Open();
  algorithm.Initialize(reader.GetRecords());
  ZEBRole role{L"alice", L"host1", 0};
  algorithm.GetUserPrivileges(role);
  return role.nPerm;
}

}  // namespace

int main() {
  Ask();
  Mark();
  const s32 privilege = Ask();
  Mark();
  std::printf("%d\n", privilege);
  return 0;
}
