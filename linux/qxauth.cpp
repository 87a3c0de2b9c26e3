// Login through PAM: the conversation, the transaction, and what becomes of the password.
#include <security/pam_appl.h>

#include <cstdio>
#include <cstring>
#include <limits>
#include <string_view>

#include "owners.h"
#include "zebcs/auth.h"
#include "zebcs/rolemap.h"
#include "zebcs/unistr.h"

const astring *pam_servicename = "qxauth";

namespace {

// Whether a conversation of this thread's login has failed: there are modules that do not care. With this model it is
// found without the dynamic loader, which would be one more library to need.
[[gnu::tls_model("initial-exec")]] thread_local bool l_hasConversationFailed = false;

// What the compiler may not leave out although nobody reads the memory again.
void Wipe(void *block, size_t size) { explicit_bzero(block, size); }

void WipeText(astring *pText) {
  if (pText != nullptr) Wipe(pText, std::strlen(pText));
}

// Wipes a 16-bit text at the end of a scope.
class WipedAtEnd {
 public:
  explicit WipedAtEnd(ustring *pText) : m_pText(pText) {}
  WipedAtEnd(const WipedAtEnd &) = delete;
  WipedAtEnd &operator=(const WipedAtEnd &) = delete;
  ~WipedAtEnd() {
    if (m_pText != nullptr) Wipe(m_pText, size_t{UniStrlen(m_pText)} * sizeof(ustring));
  }

 private:
  ustring *m_pText;
};

// An ASCII text in a byte a unit, wiped when it is released; none for any other text.
class PlainText {
 public:
  explicit PlainText(const ustring *pText) {
    if (pText == nullptr) return;
    const u32 length = UniStrlen(pText);
    if (length == std::numeric_limits<u32>::max()) return;
    m_room = size_t{length} + 1;
    m_text = MallocArray<astring>(m_room);
    if (!m_text) return;
    // Kept: anything beyond ASCII is refused, where UTF-8 would be usual. Checked unit by unit: the converters make
    // other characters of surrogates, and so would make another name of one with such in it.
    for (size_t i = 0; i < m_room; ++i) {
      constexpr ustring kLargestASCII = 0x7F;
      if (pText[i] > kLargestASCII) return;
      m_text.get()[i] = static_cast<astring>(pText[i]);
    }
    m_isWhole = true;
  }
  PlainText(const PlainText &) = delete;
  PlainText &operator=(const PlainText &) = delete;
  ~PlainText() {
    if (m_text) Wipe(m_text.get(), m_room);
  }

  explicit operator bool() const { return m_isWhole; }
  astring *get() const { return m_text.get(); }

 private:
  MallocPtr<astring> m_text;
  size_t m_room = 0;
  bool m_isWhole = false;
};

// Responses on their way to PAM, wiped unless they are handed over.
class Responses {
 public:
  explicit Responses(u16 count) : m_responses(MallocArray<pam_response>(count)) {}
  Responses(const Responses &) = delete;
  Responses &operator=(const Responses &) = delete;
  ~Responses() {
    for (u16 i = 0; m_responses && i < m_count; ++i) {
      WipeText(m_responses.get()[i].resp);
      std::free(m_responses.get()[i].resp);
    }
  }

  explicit operator bool() const { return m_responses != nullptr; }

  bool Add(const astring *pAnswer) {
    pam_response &response = m_responses.get()[m_count];
    response = {.resp = pAnswer == nullptr ? nullptr : strdup(pAnswer), .resp_retcode = 0};
    if (response.resp == nullptr) return false;
    ++m_count;
    return true;
  }

  pam_response *release() { return m_responses.release(); }

 private:
  MallocPtr<pam_response> m_responses;
  u16 m_count = 0;
};

// The name that PAM is asked about: the user's, with the domain behind a "@" if there is one. Null when it cannot be
// had.
MallocPtr<astring> LoginName(const ustring *pDomainName, const ustring *pUserName) {
  const PlainText user(pUserName);
  if (!user) return nullptr;
  if (pDomainName == nullptr) return MallocPtr<astring>(strdup(user.get()));
  const PlainText domain(pDomainName);
  if (!domain) return nullptr;
  const size_t room = std::strlen(user.get()) + std::strlen(domain.get()) + 2;
  MallocPtr<astring> name = MallocArray<astring>(room);
  if (name) (void)std::snprintf(name.get(), room, "%s@%s", user.get(), domain.get());  // fits
  return name;
}

// Answers all messages, or none.
int Answer(int num_msg, const pam_message **msg, pam_response **resp, const void *appdata_ptr) {
  if (resp == nullptr || msg == nullptr || appdata_ptr == nullptr) return PAM_CONV_ERR;
  if (num_msg < 0 || num_msg > std::numeric_limits<u16>::max()) return PAM_CONV_ERR;
  const auth_pam_userinfo &info = *static_cast<const auth_pam_userinfo *>(appdata_ptr);
  Responses responses(static_cast<u16>(num_msg));
  if (!responses) return PAM_CONV_ERR;
  for (u16 i = 0; i < num_msg; ++i) {
    if (msg[i] == nullptr) return PAM_CONV_ERR;
    const int style = msg[i]->msg_style;
    // Kept: a module that only has something to say ends the login; to pass over it would be usual.
    if (style != PAM_PROMPT_ECHO_OFF && style != PAM_PROMPT_ECHO_ON) return PAM_CONV_ERR;
    if (!responses.Add(style == PAM_PROMPT_ECHO_OFF ? info.pw : info.name)) return PAM_CONV_ERR;
  }
  *resp = responses.release();
  return PAM_SUCCESS;
}

// Runs one step of a login. It has failed when its conversation has, whatever the module makes of that.
int RunStep(int (*step)(pam_handle_t *, int), pam_handle_t *handle) {
  const int result = step(handle, PAM_DISALLOW_NULL_AUTHTOK);
  return result == PAM_SUCCESS && l_hasConversationFailed ? PAM_CONV_ERR : result;
}

}  // namespace

int auth_pam_talker(int num_msg, const pam_message **msg, pam_response **resp, void *appdata_ptr) {
  const int result = Answer(num_msg, msg, resp, appdata_ptr);
  if (result != PAM_SUCCESS) l_hasConversationFailed = true;
  return result;
}

s32 pam_auth_basic_user(const astring *omusername, const astring *ompasswd) {
  if (omusername == nullptr || ompasswd == nullptr) return -1;
  auth_pam_userinfo info{omusername, ompasswd};
  const pam_conv conversation{auth_pam_talker, &info};
  pam_handle_t *handle = nullptr;
  if (pam_start(pam_servicename, omusername, &conversation, &handle) != PAM_SUCCESS) return -1;
  l_hasConversationFailed = false;
  int result = RunStep(pam_authenticate, handle);
  if (result == PAM_SUCCESS) result = RunStep(pam_acct_mgmt, handle);
  (void)pam_end(handle, result);  // the answer is known
  return result == PAM_SUCCESS ? 0 : -1;
}

u32 LXAuthenticateUser(astring *pUserName, const astring *pPassword) {
  return pam_auth_basic_user(pUserName, pPassword) == 0 ? get_user_rights(pUserName) : ZEBCS_RIGHTS_NONE;
}

u32 OSAuthenticateUser(const ustring *pDomainName, const ustring *pUserName, ustring *pPassword) {
  const WipedAtEnd wiped(pPassword);
  const PlainText password(pPassword);
  const MallocPtr<astring> name = LoginName(pDomainName, pUserName);
  return password && name ? LXAuthenticateUser(name.get(), password.get()) : ZEBCS_RIGHTS_NONE;
}

u32 OSAuthorizeUser(const ustring *pDomainName, const ustring *pUserName) {
  if (pDomainName != nullptr && pDomainName[0] != 0) return ZEBCS_RIGHTS_NONE;
  const PlainText name(pUserName);
  return name ? get_user_rights(name.get()) : ZEBCS_RIGHTS_NONE;
}

s16 OSADAuthenticateUser(const ustring * /*pDomainName*/, const ustring * /*pUserName*/, ustring * /*pPassword*/,
                         const ustring * /*pProductName*/, const ustring * /*pProductClass*/,
                         const ustring * /*pProductDomain*/, const PrivilegeDefines * /*pd*/, booln /*useSSL*/,
                         u16 * /*pPrivileges*/) {
  return -1;
}
