#pragma once

#include "qel/Format.h"

#include <string_view>

namespace qel {

// Writes one line to standard error, stamped with the time and the process,
// as the platform's system log does. Kept for the few messages that must
// reach the console whatever the application's log settings.
void NSLogLine(std::string_view message);

template <class... Args>
void NSLog(std::string_view format, const Args&... args) {
  NSLogLine(stringWithFormat(format, args...));
}

}  // namespace qel
