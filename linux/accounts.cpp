#include "accounts.h"

#include <cerrno>

bool EntryBuffer::Grow() {
  m_size *= 2;
  m_large = MallocArray<char>(m_size);
  return m_large != nullptr;
}

Account::Account(const char *name) {
  m_buffer.Fill([&](char *memory, size_t size) { return getpwnam_r(name, &m_entry, memory, size, &m_found); });
}

Account::Account(uid_t id) {
  m_buffer.Fill([&](char *memory, size_t size) { return getpwuid_r(id, &m_entry, memory, size, &m_found); });
}

Group::Group(gid_t id) {
  m_buffer.Fill([&](char *memory, size_t size) { return getgrgid_r(id, &m_entry, memory, size, &m_found); });
}

GroupList::GroupList(const Account &account) {
  constexpr int kTypicalCount = 100;
  int count = kTypicalCount;
  m_ids = MallocArray<gid_t>(kTypicalCount);
  if (m_ids && getgrouplist(account.name(), account.gid(), m_ids.get(), &count) == -1) {
    const int room = count;
    m_ids = MallocArray<gid_t>(static_cast<size_t>(room));
    // The groups may have grown in between: what fits is what counts.
    if (m_ids && getgrouplist(account.name(), account.gid(), m_ids.get(), &count) == -1) count = room;
  }
  m_count = m_ids && count > 0 ? static_cast<size_t>(count) : 0;
}
