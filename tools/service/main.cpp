// TarnCoreService: the supervisor of TarnCoreContainer (see supervisor.h).
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>

#include "platform/log/tarn_log.h"
#include "platform/os/places.h"
#include "service_log.h"
#include "supervisor.h"

namespace {

// Standard descriptors the service was started without would be taken by its
// pipes and confuse the container's; fill them with /dev/null.
void EnsureStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0) {
      int null = ::open("/dev/null", O_RDWR);
      if (null >= 0 && null != fd) {
        ::dup2(null, fd);
        ::close(null);
      }
    }
  }
}

// One service per machine root: the second one would fight over the FIFO.
int LockSingleInstance() {
  const std::string dir = tarn::os::RuntimeDir() + "/locks";
  tarn::os::MakeDirectories(dir);
  int fd = ::open((dir + "/TarnCoreService").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

int main(int argc, char** argv) {
  EnsureStandardDescriptors();
  tarn::service::SupervisorOptions options;
  std::string error;
  if (!tarn::service::ParseSupervisorOptions(argc, argv, options, error)) {
    std::fprintf(stderr, "TarnCoreService: %s\n%s", error.c_str(),
                 tarn::service::SupervisorUsage());
    return 2;
  }
  // Before the log starts its writer thread, so that no thread takes the signals.
  tarn::service::Supervisor::BlockSignals();
  tarn::log::Open("TarnCoreService", 10, 10);

  const int lock = LockSingleInstance();
  if (lock < 0) {
    SLOGE("main", "TarnCoreService already running for this machine root");
    std::fprintf(stderr, "TarnCoreService: already running for this machine root\n");
    FlushTarnLogFile();
    return 1;
  }
  int rc = tarn::service::Supervisor(std::move(options)).Run();
  FlushTarnLogFile();
  ::close(lock);
  return rc;
}
