#pragma once

#include <qel/Format.h>

#include <functional>
#include <string>
#include <string_view>

namespace qel::core {

// The process-wide log of the core kit and of the frameworks built on it.
//
// A record is (level, domain, message): level 1 is the most severe, higher
// levels are ever more detailed; the domain names where the line comes from
// (by convention the source file's name). Records above the threshold
// (default 3) are dropped before they are formatted, so detailed traces cost
// next to nothing when they are off.
//
// The default sink writes "level domain message" lines to standard error.
// Tests replace the sink to capture records.
//
// Threading: call from the run loop thread; the sink and threshold are
// process-wide settings meant to be changed at start-up or in tests.
//
//   QELLogging::log("%s called.", 4, qel::lastPathComponent(__FILE__), __PRETTY_FUNCTION__);
class QELLogging {
 public:
  using Sink = std::function<void(int level, std::string_view domain, std::string_view message)>;

  template <class... Args>
  static void log(std::string_view format, int level, std::string_view domain, const Args&... args) {
    if (level > threshold()) return;
    write(level, domain, qel::stringWithFormat(format, args...));
  }

  static int threshold();
  static void setThreshold(int threshold);
  // An empty sink restores the default one.
  static void setSink(Sink sink);
  // The sink installed now; empty while the default one is in use.
  static Sink sink();
  static void write(int level, std::string_view domain, std::string_view message);

  // `text` made safe to put inside a line: backslashes, control characters
  // (line breaks among them) and DEL become visible escapes ("\\", "\n",
  // "\x1b"), so text that a server controls cannot start lines of its own
  // or drive a terminal. Apply it where such text enters a message.
  static std::string escaped(std::string_view text);
};

}  // namespace qel::core
