#pragma once
// Collects log lines for tests: installs a hook and lowers the threshold to
// debug for its lifetime.
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log/tarn_log.h"

namespace tarn::log {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Record> Records() const;
  // Lines whose text equals `text` exactly.
  std::size_t Count(Level level, std::string_view text) const;
  bool Has(Level level, std::string_view text) const { return Count(level, text) > 0; }
  // Lines whose text contains `part`, at any level.
  std::size_t CountContaining(std::string_view part) const;
  bool Contains(std::string_view part) const { return CountContaining(part) > 0; }
  void Clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Record> records_;
  int hook_ = -1;
  Level saved_;
};

}  // namespace tarn::log
