#pragma once
// How long the service waits before it starts a container that died: one
// second, doubling with every quick death up to a minute; a container that
// had run for a minute or more is restarted after one second again.
#include <chrono>

namespace tarn::service {

class RestartBackoff {
 public:
  using Duration = std::chrono::milliseconds;

  RestartBackoff(Duration initial = std::chrono::seconds(1),
                 Duration maximum = std::chrono::seconds(60),
                 Duration stableRun = std::chrono::seconds(60));

  // The wait before the next start, given how long the container that just
  // ended had been running.
  Duration Next(Duration ranFor);

 private:
  Duration initial_;
  Duration maximum_;
  Duration stableRun_;
  Duration current_;
};

}  // namespace tarn::service
