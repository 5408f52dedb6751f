#pragma once
// Internal: the framework's own lines, sent to the registered adapter with
// the tag "zbrf".
#include <sstream>
#include <string>

namespace tarn::zbrf::detail {

enum class LogLevel { Debug, Info, Warn, Error };

void Log(LogLevel level, const std::string& text);

}  // namespace tarn::zbrf::detail

#define ZBRF_LOG(level, ...)                                                  \
  do {                                                                        \
    std::ostringstream zbrf_log_stream_;                                      \
    zbrf_log_stream_ << __VA_ARGS__;                                          \
    ::tarn::zbrf::detail::Log(::tarn::zbrf::detail::LogLevel::level,          \
                              zbrf_log_stream_.str());                        \
  } while (0)
