// Appending to an event log of three sizes, beside no more than the system calls that an append takes, and beside
// spdlog with a flush for each entry, the system log and a file that is only appended to.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "compare.h"
#include "contenders.h"
#include "zebcs/frame.h"
#include "zebcs/logs.h"

namespace {

constexpr char kEndTag[] = "</EventLog>";
constexpr off_t kEndTagSize = sizeof kEndTag - 1;
constexpr char kDescription[] = "<Parameter name=\"address\" oldval=\"192.0.2.1\" newval=\"192.0.2.2\"/>";

void AppendByUs(const std::string &path) {
  KCSAppendToXMLLog(path.c_str(), 4, 5301, "administrator", "console", kDescription, nullptr, 0, UINT32_MAX);
}

// What is left of an append when nothing is made up, looked at or looked for.
void AppendBare(const std::string &path, const std::string &entry) {
  FileLock(1);
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  struct stat info = {};
  fstat(fd, &info);
  char tag[kEndTagSize];
  const off_t end = info.st_size - kEndTagSize;
  const bool isEnd = pread(fd, tag, sizeof tag, end) == kEndTagSize && std::memcmp(tag, kEndTag, sizeof tag) == 0;
  Require(isEnd && pwrite(fd, entry.data(), entry.size(), end) > 0, "a log cannot be appended to");
  close(fd);
  FileUnlock();
}

void AppendPlain(const std::string &path, const std::string &line) {
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  Require(write(fd, line.data(), line.size()) > 0, "a file cannot be appended to");
  close(fd);
}

std::string Stored(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// The entry that we append, with the end tag.
std::string OurEntry(const std::string &folder) {
  const std::string path = folder + "/entry.xml";
  AppendByUs(path);
  const std::string first = Stored(path);
  AppendByUs(path);
  const std::string both = Stored(path);
  Require(both.size() > first.size() && both.ends_with(kEndTag), "our log differs");
  return both.substr(first.size() - static_cast<size_t>(kEndTagSize));
}

// A log of about that size. Every few appends it is cut to it again, which is not timed.
class SizedLog {
 public:
  SizedLog(std::string path, const std::string &entry, size_t size) : m_path(std::move(path)) {
    std::string text = R"(<?xml-stylesheet type="text/xsl" version="1.0" encoding="UTF-8"?><EventLog>)";
    while (text.size() < size) text.append(entry, 0, entry.size() - static_cast<size_t>(kEndTagSize));
    m_size = static_cast<off_t>(text.size());
    std::ofstream(m_path) << text << kEndTag;
    Require(chmod(m_path.c_str(), 01664) == 0, "a log's mode cannot be set");
  }

  const std::string &path() const { return m_path; }

  void Restore() const {
    const int fd = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
    const bool isDone = pwrite(fd, kEndTag, static_cast<size_t>(kEndTagSize), m_size) == kEndTagSize &&
                        ftruncate(fd, m_size + kEndTagSize) == 0;
    close(fd);
    Require(isDone, "a log cannot be cut");
  }

 private:
  std::string m_path;
  off_t m_size = 0;
};

template <class Append>
void AddAppender(const std::string &name, const std::shared_ptr<const SizedLog> &log, Append append) {
  benchmark::RegisterBenchmark(name.c_str(), [log, append](benchmark::State &state) {
    constexpr int kAppendsBetween = 8;
    int appends = 0;
    for (auto _ : state) {
      append(log->path());
      if (++appends % kAppendsBetween != 0) continue;
      state.PauseTiming();
      log->Restore();
      state.ResumeTiming();
    }
    log->Restore();
  });
}

// A receiver in the place of the system's own, in a /dev of this process's mount namespace.
class SystemLog {
 public:
  SystemLog() {
    Require(mount("bench", "/dev", "tmpfs", 0, nullptr) == 0, "/dev cannot be had; run this inside the sandbox");
    m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    Require(bind(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "/dev/log is in use");
    std::thread([fd = m_socket] {
      char message[8192];
      while (recv(fd, message, sizeof message, 0) >= 0) continue;
    }).detach();
    openlog("bench", LOG_NDELAY, LOG_DAEMON);
  }

 private:
  int m_socket = -1;
};

}  // namespace

void AddLogBenchmarks() {
  char folder[] = "/tmp/zebcs-bench-log-XXXXXX";
  Require(mkdtemp(folder) != nullptr, "no folder for logs");
  const std::string directory = folder;
  const std::string entry = OurEntry(directory);
  for (const auto &[name, size] :
       {std::pair("log_append_1kb", size_t{1024}), std::pair("log_append_64kb", size_t{64} << 10),
        std::pair("log_append_3mb", size_t{3} << 20)}) {
    const std::string group = name;
    const auto ours = std::make_shared<const SizedLog>(directory + "/" + group, entry, size);
    const auto bare = std::make_shared<const SizedLog>(directory + "/" + group + "-bare", entry, size);
    AddAppender(group + "/zebcs", ours, AppendByUs);
    AddAppender(group + "/bare", bare, [entry](const std::string &path) { AppendBare(path, entry); });
    if (size != 1024) continue;
    const auto plain = std::make_shared<const SizedLog>(directory + "/" + group + "-plain", entry, size);
    AddAppender(group + "/append_only", plain, [entry](const std::string &path) { AppendPlain(path, entry); });
    const auto logger = spdlog::basic_logger_st("bench", directory + "/spdlog");
    logger->set_pattern("%v");
    logger->flush_on(spdlog::level::info);
    AddContender(group + "/spdlog", entry.size(), [logger, entry] { logger->info(entry); });
    static const SystemLog systemLog;
    AddContender(group + "/syslog", entry.size(), [entry] { syslog(LOG_INFO, "%s", entry.c_str()); });
  }
}
