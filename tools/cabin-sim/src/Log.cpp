#include "Log.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace cabinsim {

void logLine(const std::string& text) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[16];
  std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
  std::fprintf(stderr, "%s.%03d cabin-sim: %s\n", stamp, static_cast<int>(millis), text.c_str());
}

}  // namespace cabinsim
