#include "platform/log/log_capture.h"

namespace tarn::log {

LogCapture::LogCapture() : saved_(Threshold()) {
  SetThreshold(Level::Debug);
  hook_ = AddHook([this](const Record& r) {
    std::lock_guard lock(mutex_);
    records_.push_back(r);
  });
}

LogCapture::~LogCapture() {
  RemoveHook(hook_);
  SetThreshold(saved_);
}

std::vector<Record> LogCapture::Records() const {
  std::lock_guard lock(mutex_);
  return records_;
}

std::size_t LogCapture::Count(Level level, std::string_view text) const {
  std::lock_guard lock(mutex_);
  std::size_t n = 0;
  for (const auto& r : records_) n += (r.level == level && r.text == text);
  return n;
}

std::size_t LogCapture::CountContaining(std::string_view part) const {
  std::lock_guard lock(mutex_);
  std::size_t n = 0;
  for (const auto& r : records_) n += (r.text.find(part) != std::string::npos);
  return n;
}

void LogCapture::Clear() {
  std::lock_guard lock(mutex_);
  records_.clear();
}

}  // namespace tarn::log
