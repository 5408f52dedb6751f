#pragma once
// The service's own lines, tagged "service", in TarnCoreService.log.
#include "platform/log/tarn_log.h"

#define SLOGD(where, ...) TARN_LOG(::tarn::log::Level::Debug, "service", where, __VA_ARGS__)
#define SLOGI(where, ...) TARN_LOG(::tarn::log::Level::Info, "service", where, __VA_ARGS__)
#define SLOGW(where, ...) TARN_LOG(::tarn::log::Level::Warn, "service", where, __VA_ARGS__)
#define SLOGE(where, ...) TARN_LOG(::tarn::log::Level::Error, "service", where, __VA_ARGS__)
