// Texts such as "name@host" beside a plain splitting of them: what becomes of the text, and whose rights come back.
#include <cctype>
#include <clocale>
#include <cwchar>

#include "fuzzer.h"
#include "guarded_buffer.h"
#include "sandbox.h"
#include "zebcs/net.h"
#include "zebcs/rolemap.h"
#include "zebcs/rolemap.hpp"

namespace {

// Each grant is one by which some splitting of a text differs from another.
constexpr char kRoleMap[] =
    "alice web01,web02 administrator\n"
    "alice sandbox user\n"
    "bob * poweruser\n"
    "Bob * user\n"
    "+wheel wheelhost poweruser\n"
    "carol web01 user\n"
    "a\\b * poweruser\n"
    "x@y * poweruser\n"
    "root web01 user\n"
    "nobody *.dom.example user\n"
    "* any.host poweruser\n"
    "* root,toor,alice user\n";

// A host name or a user name, and what the text is afterwards.
struct LoginName {
  std::string user;
  std::string host;
  std::string account;  // whom the operating system is asked about: the text, which ends at the first separator
  std::string altered;
};

std::string ThisHost() {
  astring name[65] = "";
  u32 size = sizeof name;
  return KCSGetIPHostName(name, &size) == SM_STATUS_SUCCESS ? name : "";
}

LoginName Split(const std::string &text) {
  static const std::string l_host = ThisHost();
  const bool hasAt = text.find('@') != std::string::npos;
  const size_t first = text.find(hasAt ? '@' : '\\');
  if (first == std::string::npos) return {text, l_host, text, text};
  const size_t second = text.find(text[first], first + 1);
  LoginName result;
  result.altered = text;
  result.altered[first] = 0;
  if (second != std::string::npos) result.altered[second] = 0;
  result.account = text.substr(0, first);
  const std::string rest = text.substr(first + 1, second == std::string::npos ? second : second - first - 1);
  result.user = hasAt ? result.account : rest;
  result.host = hasAt ? rest : result.account;
  return result;
}

bool Widen(const std::string &text, std::wstring &wide) {
  wide.resize(text.size() + 1);
  const size_t length = std::mbstowcs(wide.data(), text.c_str(), wide.size());
  if (length == static_cast<size_t>(-1)) return false;
  wide.resize(length);
  return true;
}

// Names that are not valid in the locale match no rule.
s32 RolemapPrivilege(const LoginName &loginName) {
  ZEBRole role;
  if (!Widen(loginName.user, role.szUserName) || !Widen(loginName.host, role.szHostName)) return 0;
  for (wchar_t &c : role.szHostName) {
    if (c <= 0xFF) c = static_cast<wchar_t>(std::tolower(static_cast<int>(c)));
  }
  ZEBRoleMapAlgorithm::GetInstance().GetUserPrivileges(role);
  return role.nPerm;
}

// Of the sandbox's accounts.
s32 SystemPrivilege(const std::string &account) {
  if (account == "root" || account == "toor") return 7;
  if (account == "carol") return 3;
  for (const char *const other : {"daemon", "nobody", "alice", "bob", "dave"}) {
    if (account == other) return 1;
  }
  return 0;
}

u32 Rights(const LoginName &loginName) {
  const s32 granted = RolemapPrivilege(loginName);
  const s32 system = SystemPrivilege(loginName.account);
  if (system == 7) return 0x40007;
  return granted == 0 ? 0 : static_cast<u32>(std::max(granted, system));
}

bool SetUp() {
  sandbox::RequireSandbox();
  astring someone[] = "someone";
  return std::setlocale(LC_ALL, "C.UTF-8") != nullptr &&
         sandbox::WriteFile(sandbox::kRoleMapPath, kRoleMap, 0640, 1'000'000) && get_user_rights(someone) == 0;
}

// Asks with the text at the end of memory, and with bytes in front of it that must stay.
void CheckLoginName(const std::string &text) {
  constexpr size_t kRoom = 32768;
  constexpr size_t kBefore = 64;
  static sandbox::GuardedBuffer l_buffer(kRoom);
  const size_t size = text.size() + 1;
  FUZZ_CHECK(size + kBefore <= kRoom);
  char *const end = l_buffer.data<char>() + kRoom;
  std::memset(end - size - kBefore, sandbox::GuardedBuffer::kFill, kBefore);
  std::memcpy(end - size, text.c_str(), size);

  const LoginName expected = Split(text);
  const u32 rights = get_user_rights(end - size);
  FUZZ_CHECK(std::string(end - size, size - 1) == expected.altered && end[-1] == 0);
  const auto isFill = [](char c) { return static_cast<unsigned char>(c) == sandbox::GuardedBuffer::kFill; };
  FUZZ_CHECK(std::all_of(end - size - kBefore, end - size, isFill));
  FUZZ_CHECK(rights == Rights(expected));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool l_isReady = SetUp();
  FUZZ_CHECK(l_isReady);
  FUZZ_CHECK(get_user_rights(nullptr) == 0);
  FuzzInput input(data, size);
  for (int i = 0; i < 4 && !input.IsEmpty(); ++i) CheckLoginName(input.TakeText());
  return 0;
}
