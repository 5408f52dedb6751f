#pragma once
// The sandboxed program's side: confine the process, then serve the frames of
// sandbox_frame.h on descriptors 3 (calls) and 4 (notes) with one service
// object until the host closes its ends.
//
// Confinement, applied after the service object exists and before the first
// request: no_new_privs; Landlock (where the kernel has it) so that files can
// be read only beneath the given folders and nothing can be written; and a
// seccomp allow-list: memory without executable mappings, reads, writes to
// descriptors 2 and 3 only, read-only opens, stat, clocks, futexes, signals
// returning, exit. execve, ptrace and process creation kill the process;
// every other system call fails with EPERM. (Sanitizer builds also allow
// pipes and writes to any descriptor: their runtimes probe memory that way.)
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/zbrf/zobject.h"

namespace tarn::zbrf {

using ServiceFactory = std::function<bool(std::shared_ptr<ZObject>* out)>;

struct SandboxSpec {
  // Factory methods by name; the host names one in argv[1].
  std::vector<std::pair<std::string, ServiceFactory>> methods;
  // Folders beneath which the service may read files.
  std::vector<std::string> readableDirs;
};

// The whole main() of a sandboxed program. Returns only on a start-up failure
// (2: not started by a host, 3: the confinement failed, 4: unknown method or
// the factory failed); after serving it ends the process with _exit(0).
int SandboxMain(int argc, char** argv, const SandboxSpec& spec);

struct ConfinementResult {
  bool seccomp = false;   // the syscall filter is in force
  bool landlock = false;  // the file-system rules are in force (false where the kernel lacks them)
  std::string error;
};
// Confines the calling process as told above. Irreversible.
ConfinementResult ConfineProcess(const std::vector<std::string>& readableDirs);

}  // namespace tarn::zbrf
