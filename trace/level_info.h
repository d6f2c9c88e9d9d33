#pragma once

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "trace/trace.h"

namespace Trace {

struct LevelInfo {
  std::string_view name;
  int syslogPriority;
};

inline constexpr std::array<LevelInfo, 6> levels{{
    {"FATAL", LOG_CRIT},
    {"ERROR", LOG_ERR},
    {"WARNING", LOG_WARNING},
    {"INFO", LOG_INFO},
    {"VERBOSE", LOG_DEBUG},
    {"DEBUG", LOG_DEBUG},
}};

constexpr LevelInfo const& GetLevelInfo(TraceLevel level) {
  return levels[static_cast<std::size_t>(std::clamp(level, levelFatal, levelDebug))];
}

}  // namespace Trace
