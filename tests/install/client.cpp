// Asks the role map's classes what the built-in rules give to root.
#include <cstdio>
#include <zebcs/rolemap.hpp>

int main() {
  ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
  algorithm.Initialize(QXAuthFileReader::GetInstance().GetDefaultRecords());
  ZEBRole role{L"root", L"anywhere", 0};
  algorithm.GetUserPrivileges(role);
  std::printf("%d\n", role.nPerm);
}
