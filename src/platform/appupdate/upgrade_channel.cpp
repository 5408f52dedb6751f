#include "platform/appupdate/upgrade_channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace tarn::appupdate {

namespace {

constexpr const char kRequest[] = "upgrade\n";
constexpr std::size_t kLineLimit = 64;

bool SendLine(int channel, const std::string& line) {
  std::size_t sent = 0;
  while (sent < line.size()) {
    const ssize_t n = ::send(channel, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

// One line, without its line feed; false at the end, on an error, on a line
// longer than any this channel carries, or when waitMs (-1: no limit) passed.
bool ReadLine(int channel, std::string& line, int waitMs) {
  line.clear();
  for (;;) {
    pollfd ready{channel, POLLIN, 0};
    const int polled = ::poll(&ready, 1, waitMs);
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return false;
    char c;
    const ssize_t n = ::read(channel, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    if (c == '\n') return true;
    if (line.size() == kLineLimit) return false;
    line.push_back(c);
  }
}

}  // namespace

bool RequestUpgrade(int channel) {
  std::string answer;
  return SendLine(channel, kRequest) && ReadLine(channel, answer, -1) && answer == "1";
}

Served ServeUpgrade(int channel, UpgradeAPI& updater, int waitMs) {
  std::string request;
  if (!ReadLine(channel, request, waitMs) || request + "\n" != kRequest) return Served::kNoRequest;
  updater.Init();
  const bool started = updater.TarnCoreAppSilentUpgrade(true);
  SendLine(channel, started ? "1\n" : "0\n");  // a UI gone meanwhile changes nothing
  return started ? Served::kStarted : Served::kNotStarted;
}

}  // namespace tarn::appupdate
