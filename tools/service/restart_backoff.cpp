#include "restart_backoff.h"

#include <algorithm>

namespace tarn::service {

RestartBackoff::RestartBackoff(Duration initial, Duration maximum, Duration stableRun)
    : initial_(initial), maximum_(std::max(initial, maximum)), stableRun_(stableRun),
      current_(initial) {}

RestartBackoff::Duration RestartBackoff::Next(Duration ranFor) {
  if (ranFor >= stableRun_) current_ = initial_;
  const Duration wait = current_;
  current_ = std::min(maximum_, current_ * 2);
  return wait;
}

}  // namespace tarn::service
