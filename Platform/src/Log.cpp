#include "qel/Log.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

namespace qel {

void NSLogLine(std::string_view message) {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[64];
  const std::size_t length = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);

  // Assemble the whole line first so that a single write keeps it in one
  // piece when other threads log at the same time.
  char prefix[160];
  std::snprintf(prefix, sizeof prefix, "%.*s.%03d %s[%d] ", static_cast<int>(length), stamp,
                static_cast<int>(millis), program_invocation_short_name,
                static_cast<int>(::getpid()));
  std::string line(prefix);
  line.append(message);
  if (line.empty() || line.back() != '\n') line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

}  // namespace qel
