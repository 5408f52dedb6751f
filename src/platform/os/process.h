#pragma once
// Other processes: look-up by name, detached starts, and the detached removal
// of a directory tree. Behind an interface so logic that starts programs or
// looks for them is tested without real processes.
#include <sys/types.h>

#include <string>
#include <vector>

namespace tarn::os {

// Another user to run a started program as: its ids and its whole environment
// ("NAME=value" entries), nothing of ours added.
// Where a started program finds the descriptor passed to it.
inline constexpr int kPassedDescriptor = 5;

struct StartAs {
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
  std::vector<std::string> environment;
};

class Processes {
 public:
  virtual ~Processes() = default;
  // Pids of the running processes called name: the file name of /proc/<pid>/exe
  // or /proc/<pid>/comm, compared without case. Where exe can't be read (another
  // user's process) a longer name matches the 15 characters comm keeps. A
  // process that has ended but was not reaped yet doesn't count.
  virtual std::vector<pid_t> FindByName(const std::string& name) = 0;
  // Pids of the running processes called any of the names, as FindByName
  // judges them. This default asks FindByName for each name in turn.
  virtual std::vector<pid_t> FindByAnyName(const std::vector<std::string>& names);
  // Starts the program file open at fd (fexecve, so the file started is the one
  // that was opened and tested, whatever its path names by now), with path as
  // argv[0] and the arguments (one text split at blanks). Detached: in its own
  // session, standard handles on /dev/null, nothing else inherited, and not
  // waited for. With `as`, it runs as that user with exactly that environment;
  // without, as this process with its environment. A passed descriptor (not
  // -1) is the one thing handed on: the program finds it as
  // kPassedDescriptor. False with the errno as last error when it could not
  // be started.
  virtual bool StartFile(int fd, const std::string& path, const std::string& arguments,
                         const StartAs* as, int passed) = 0;
  // Runs "rm -rf -- directory" in a detached child; true when the child started.
  virtual bool RemoveTreeDetached(const std::string& directory) = 0;
};

// The real thing, on /proc, fork and fexecve.
class SystemProcesses : public Processes {
 public:
  std::vector<pid_t> FindByName(const std::string& name) override;
  // One look at /proc for all the names.
  std::vector<pid_t> FindByAnyName(const std::vector<std::string>& names) override;
  bool StartFile(int fd, const std::string& path, const std::string& arguments,
                 const StartAs* as, int passed) override;
  bool RemoveTreeDetached(const std::string& directory) override;
};

// The process-wide instance; tests may install their own (nullptr restores the real one).
Processes& GetProcesses();
void SetProcessesForTesting(Processes* processes);

// A process called name runs now.
bool IsProcessRunning(const std::string& name);
// A process called one of the names runs now.
bool IsAnyProcessRunning(const std::vector<std::string>& names);

// The arguments as StartProcess splits them: at blanks, empty pieces dropped.
std::vector<std::string> SplitArguments(const std::string& arguments);

}  // namespace tarn::os
