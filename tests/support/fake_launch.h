#pragma once
// Processes, file signatures and the desktop session replaced, for the code
// that starts a verified program: each start is recorded with the head of the
// file it opened, so a file swapped in at the path after the checks shows up
// as what would run.
#include <unistd.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/desktop/desktop.h"
#include "platform/os/process.h"
#include "platform/security/security.h"

namespace tarn::test {

class FakeProcesses : public os::Processes {
 public:
  std::vector<pid_t> FindByName(const std::string& name) override {
    std::lock_guard lock(mutex);
    lookups.push_back(name);
    return !running.empty() && name.rfind(running, 0) == 0 ? std::vector<pid_t>{42} : std::vector<pid_t>{};
  }
  bool StartFile(int fd, const std::string& path, const std::string& arguments, const os::StartAs* as,
                 int) override {
    std::lock_guard lock(mutex);
    char content[32] = {};
    starts.push_back(path + "|" + arguments + "|" + std::string(content, ::pread(fd, content, sizeof(content), 0)));
    startedAs = as ? as->uid : ::geteuid();
    return startWorks;
  }
  bool RemoveTreeDetached(const std::string& directory) override {
    std::lock_guard lock(mutex);
    removed.push_back(directory);
    return true;
  }
  std::mutex mutex;
  std::string running;  // the start of the name of the one process that runs
  bool startWorks = true;
  std::vector<std::string> lookups, starts, removed;  // starts: path|arguments|content, also the failed ones
  uid_t startedAs = 0;  // the user of the last start
};

class FakeSignatures : public security::FileSignatureChecker {
 public:
  bool VerifyEmbedded(const std::string&) override { return embedded; }
  bool VerifyMaker(const std::string&) override {
    ++makerChecks;
    if (whileVerifying) whileVerifying();
    return maker;
  }
  bool embedded = true, maker = true;
  int makerChecks = 0;
  std::function<void()> whileVerifying;
};

// A person logged on at seat0, or no one.
class FakeSessions : public desktop::Sessions {
 public:
  std::optional<desktop::SessionUser> ActiveGraphicalSession() override {
    if (!loggedOn) return std::nullopt;
    return desktop::SessionUser{"2", 1000, 1000, {1000}, {"DISPLAY=:0", "HOME=/home/ada", "USER=ada"}};
  }
  bool loggedOn = true;
};

}  // namespace tarn::test
