#pragma once

#include <qel/Format.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qel::core {

// The process-wide log of the core kit and of the frameworks built on it.
//
// A record is (level, domain, message): level 1 is the most severe, higher
// levels are ever more detailed; the domain names where the line comes from
// (by convention the source file's name). Records above the threshold
// (default 2: warnings and failures) are dropped before they are formatted,
// so detailed traces cost next to nothing when they are off.
//
// The default sink writes "time level domain message" lines to standard
// error, the time in UTC ("2026-11-25T16:21:23.456Z").
// Tests and the C API replace the sink to capture records. Every control
// character in the domain or the message (line breaks, ESC, C1 controls) is
// written as a visible escape, whoever formatted the text, so that text a
// server controls can neither start a line of its own nor drive a terminal;
// a sink receives the same escaped text. Printable text is left as it is.
//
// Threading: any thread may log (the host's loop, application threads). The
// sink is read and replaced under one lock and called outside it; once
// setSink() returns, the sink it replaced is never called again (it waits
// for calls still running on other threads; a sink may replace itself).
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

  // `text` with backslashes and control characters as visible escapes
  // ("\\", "\n", "\x1b"), unambiguous, for server text kept in a reason or
  // an error description that outlives the line. Lines need no such call:
  // write() escapes their control characters.
  static std::string escaped(std::string_view text);
};

// Keeps a warning that a server can repeat at will (one per frame it sends)
// from flooding the log. The first of a burst is written; the same format is
// then counted, not written, until `window` has passed on the loop's clock;
// the next one written says how many were left out ("... (repeated 9,999
// times)"). Only for transports' warnings: the service's traced lines are
// never left out. Use from one run loop thread.
class QELRepeatedLines {
 public:
  explicit QELRepeatedLines(std::chrono::steady_clock::duration window = std::chrono::seconds(10)) : window_(window) {}

  template <class... Args>
  void log(std::string_view format, int level, std::string_view domain, const Args&... args) {
    if (level > QELLogging::threshold()) return;
    std::string suffix;
    if (!admit(format, &suffix)) return;
    QELLogging::write(level, domain, qel::stringWithFormat(format, args...) + suffix);
  }

 private:
  struct Burst {
    std::string format;
    std::chrono::steady_clock::time_point until;
    unsigned long left = 0;
  };
  bool admit(std::string_view format, std::string* suffix);

  std::chrono::steady_clock::duration window_;
  std::vector<Burst> bursts_;
};

}  // namespace qel::core
