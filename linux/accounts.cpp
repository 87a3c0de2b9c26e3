#include "accounts.h"

#include <algorithm>
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
  int count = Fill(account, kTypicalCount);
  if (count > kTypicalCount) {
    const int room = count;
    count = std::min(Fill(account, room), room);  // they may be more by now: what fits is what counts
  }
  m_count = static_cast<size_t>(count);
}

int GroupList::Fill(const Account &account, int room) {
  m_ids = MallocArray<gid_t>(static_cast<size_t>(room));
  int count = room;
  if (!m_ids) return 0;
  if (getgrouplist(account.name(), account.gid(), m_ids.get(), &count) != -1) return std::max(count, 0);
  // It fails for want of room, and then says how much there must be, or for want of memory, and has stored nothing.
  return count > room ? count : 0;
}
