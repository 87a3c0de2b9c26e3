// What listens in place of the system log's service.
#ifndef ZEBCS_TESTS_SUPPORT_SYSTEM_LOG_H
#define ZEBCS_TESTS_SUPPORT_SYSTEM_LOG_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "sandbox.h"

namespace sandbox {

// Takes the place of /dev, which has nothing else in it, while it lives.
class SystemLog {
 public:
  SystemLog() {
    RequireSandbox();
    if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) {
      ADD_FAILURE() << "mount at /dev: " << std::strerror(errno);
      return;
    }
    m_isMounted = true;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
      ADD_FAILURE() << "bind at /dev/log: " << std::strerror(errno);
    }
  }
  SystemLog(const SystemLog &) = delete;
  SystemLog &operator=(const SystemLog &) = delete;
  ~SystemLog() {
    if (m_fd >= 0) close(m_fd);
    if (m_isMounted && umount2("/dev", MNT_DETACH) != 0) ADD_FAILURE() << "unmount: " << std::strerror(errno);
  }

  // The next message with its priority, without its time; "(none)" if there is none within the time. What is sent has
  // arrived.
  std::string Receive(int milliseconds = 0) const {
    pollfd polled{m_fd, POLLIN, 0};
    if (poll(&polled, 1, milliseconds) != 1) return "(none)";
    std::vector<char> buffer(300000);
    const ssize_t count = recv(m_fd, buffer.data(), buffer.size(), 0);
    if (count < 0) return std::strerror(errno);
    const std::string message(buffer.data(), static_cast<size_t>(count));
    // As in "<27>Nov  1 08:00:00 ".
    const size_t end = message.find('>') + 1;
    std::tm time = {};
    const char *const rest = strptime(message.c_str() + end, "%b %e %H:%M:%S ", &time);
    if (rest != message.c_str() + end + 16) return "no time: " + message;
    return message.substr(0, end) + message.substr(end + 16);
  }

 private:
  int m_fd = -1;
  bool m_isMounted = false;
};

}  // namespace sandbox

#endif
