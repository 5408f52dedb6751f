#pragma once
// Other processes: look-up by name, detached starts, and the detached removal
// of a directory tree. Behind an interface so logic that starts programs or
// looks for them is tested without real processes.
#include <sys/types.h>

#include <string>
#include <vector>

namespace tarn::os {

class Processes {
 public:
  virtual ~Processes() = default;
  // Pids of the running processes called name: the file name of /proc/<pid>/exe
  // or /proc/<pid>/comm, compared without case. Where exe can't be read (another
  // user's process) a longer name matches the 15 characters comm keeps. A
  // process that has ended but was not reaped yet doesn't count.
  virtual std::vector<pid_t> FindByName(const std::string& name) = 0;
  // Starts path with the arguments (one text split at blanks), detached: in its
  // own session, standard handles on /dev/null, nothing else inherited, and not
  // waited for. False with the errno as last error when it could not be started.
  virtual bool StartProcess(const std::string& path, const std::string& arguments) = 0;
  // Runs "rm -rf -- directory" in a detached child; true when the child started.
  virtual bool RemoveTreeDetached(const std::string& directory) = 0;
};

// The real thing, on /proc and posix_spawn.
class SystemProcesses : public Processes {
 public:
  std::vector<pid_t> FindByName(const std::string& name) override;
  bool StartProcess(const std::string& path, const std::string& arguments) override;
  bool RemoveTreeDetached(const std::string& directory) override;
};

// The process-wide instance; tests may install their own (nullptr restores the real one).
Processes& GetProcesses();
void SetProcessesForTesting(Processes* processes);

// A process called name runs now.
bool IsProcessRunning(const std::string& name);

// The arguments as StartProcess splits them: at blanks, empty pieces dropped.
std::vector<std::string> SplitArguments(const std::string& arguments);

}  // namespace tarn::os
