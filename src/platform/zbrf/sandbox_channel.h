#pragma once
// The host's side of a sandboxed service: starts the verified program as a
// child over two socketpairs, one for calls and their replies, one for
// one-way notes, and carries transactions to it.
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

#include "platform/zbrf/zobject.h"

namespace tarn::zbrf {

// Upper bound of one transaction with a sandboxed service.
inline constexpr std::chrono::milliseconds kMaxSandboxTimeout{2000};

// Starts the program open at execFd (already verified; the descriptor is
// executed, not a path) with argv {name, method}, stdin and stdout on
// /dev/null, stderr inherited, the call socket at descriptor 3, the note
// socket at 4 and no_new_privs set. The program installs its own syscall filter before it serves. Returns
// null when the child could not be started.
std::shared_ptr<ZObject> StartSandbox(int execFd, const std::string& name, const std::string& method,
                                      std::chrono::milliseconds timeout);

// The host's ends of the two sockets to a child.
struct SandboxChannel {
  int callFd = -1;  // requests that wait for a reply, and the replies
  int noteFd = -1;  // one-way requests only; never read
};

// The object over the host's ends of the sockets to a child already started
// (pid 0: none to end), which takes the descriptors. StartSandbox ends with this.
std::shared_ptr<ZObject> SandboxOverChannel(SandboxChannel channel, pid_t pid, const std::string& name,
                                            std::chrono::milliseconds timeout);

// Pid of the child behind a sandboxed object, 0 for any other object or once
// the child has been ended.
pid_t SandboxPid(const ZObject& object);

}  // namespace tarn::zbrf
