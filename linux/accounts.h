// Accounts and groups of the system, looked up without the C library's shared entries, so that threads may do it.
#ifndef ZEBCS_SRC_ACCOUNTS_H
#define ZEBCS_SRC_ACCOUNTS_H

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstddef>

#include "owners.h"

// Memory for an entry of an account database, the texts of which it holds.
class EntryBuffer {
 public:
  // Calls `lookUp`, which says ERANGE while the entry needs more memory.
  template <class LookUp>
  void Fill(LookUp lookUp) {
    while (lookUp(m_large ? m_large.get() : m_small, m_size) == ERANGE && Grow()) continue;
  }

 private:
  bool Grow();

  char m_small[1024];
  MallocPtr<char> m_large;
  size_t m_size = sizeof m_small;
};

// An account, if there is one of that name or user id and memory for it.
class Account {
 public:
  explicit Account(const char *name);
  explicit Account(uid_t id);
  Account(const Account &) = delete;
  Account &operator=(const Account &) = delete;

  explicit operator bool() const { return m_found != nullptr; }
  const char *name() const { return m_entry.pw_name; }
  uid_t uid() const { return m_entry.pw_uid; }
  gid_t gid() const { return m_entry.pw_gid; }

 private:
  EntryBuffer m_buffer;
  passwd m_entry{};
  passwd *m_found = nullptr;
};

// A group, likewise.
class Group {
 public:
  explicit Group(gid_t id);
  Group(const Group &) = delete;
  Group &operator=(const Group &) = delete;

  explicit operator bool() const { return m_found != nullptr; }
  const char *name() const { return m_entry.gr_name; }

 private:
  EntryBuffer m_buffer;
  group m_entry{};
  group *m_found = nullptr;
};

// The ids of an account's groups, the primary one among them; none when memory runs out.
class GroupList {
 public:
  explicit GroupList(const Account &account);

  const gid_t *begin() const { return m_ids.get(); }
  const gid_t *end() const { return m_ids.get() + m_count; }

 private:
  int Fill(const Account &account, int room);

  MallocPtr<gid_t> m_ids;
  size_t m_count = 0;
};

#endif
