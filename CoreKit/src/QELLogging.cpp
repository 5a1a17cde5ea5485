#include "qel/core/QELLogging.h"

#include <qel/RunLoop.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace qel::core {
namespace {

// Warnings and failures: what an application's user or its developer acts
// on. The service's traced calls (3 and above) are there when asked for.
constexpr int kDefaultThreshold = 2;

// QEL_LOG_LEVEL sets the threshold a process starts with. An unusable value
// is ignored here without a word (logging is not ready yet); the
// configuration reports it when it is read.
int initialThreshold() {
  const char* text = std::getenv("QEL_LOG_LEVEL");
  if (!text || !*text) return kDefaultThreshold;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < 0 || value > 100) return kDefaultThreshold;
  return static_cast<int>(value);
}

std::atomic<int>& thresholdStorage() {
  static std::atomic<int> threshold{initialThreshold()};
  return threshold;
}

// The installed sink with the number of its calls running, so that
// replacing it can wait until none is.
struct Installed {
  explicit Installed(QELLogging::Sink s) : sink(std::move(s)) {}
  QELLogging::Sink sink;
  std::size_t calls = 0;  // guarded by SinkState::mutex
};

struct SinkState {
  std::mutex mutex;
  std::condition_variable idle;
  std::shared_ptr<Installed> installed;
};

SinkState& sinkState() {
  // Never destroyed, so that objects torn down at exit may still log.
  static SinkState* const state = new SinkState;
  return *state;
}

// The sink calls running on this thread, innermost first: replacing a sink
// from inside its own call must not wait for that call.
struct Call {
  const Installed* installed;
  const Call* outer;
};
thread_local const Call* innermostCall = nullptr;

constexpr char kHex[] = "0123456789abcdef";

// A C1 control (U+0080 to U+009F) encoded in UTF-8 starts at `i`.
bool isC1(std::string_view text, std::size_t i) {
  if (static_cast<unsigned char>(text[i]) != 0xc2 || i + 1 >= text.size()) return false;
  const auto next = static_cast<unsigned char>(text[i + 1]);
  return next >= 0x80 && next < 0xa0;
}

// Control characters as visible escapes: C0 and DEL as "\n", "\x1b", C1
// (in UTF-8, U+0080 to U+009F) as "\u009b"; backslashes too when the text
// must read back unambiguously.
std::string escape(std::string_view text, bool backslashes) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\\':
        result += backslashes ? "\\\\" : "\\";
        continue;
      case '\n':
        result += "\\n";
        continue;
      case '\r':
        result += "\\r";
        continue;
      case '\t':
        result += "\\t";
        continue;
      default:
        break;
    }
    if (byte < 0x20 || byte == 0x7f) {
      result += "\\x";
      result += kHex[byte >> 4];
      result += kHex[byte & 0xf];
    } else if (isC1(text, i)) {
      const auto control = static_cast<unsigned char>(text[++i]);
      result += "\\u00";
      result += kHex[control >> 4];
      result += kHex[control & 0xf];
    } else {
      result += c;
    }
  }
  return result;
}

// Appended digit by digit: GCC 12 warns falsely (-Wrestrict, its bug 105329)
// on an insert into the middle of a string in the release build.
std::string withThousands(unsigned long count) {
  const std::string digits = std::to_string(count);
  std::string grouped;
  grouped.reserve(digits.size() + digits.size() / 3);
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
    grouped += digits[i];
  }
  return grouped;
}

bool isLineSafe(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f) return false;
    if (isC1(text, i)) return false;
  }
  return true;
}

// "2026-11-25T16:21:23.456Z ": lines on standard error end up in files and
// terminals where nothing else says when they were written.
std::string timestamp() {
  const auto now = std::chrono::system_clock::now();
  const auto seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03dZ ", static_cast<int>(millis));
  return text;
}

void writeToStandardError(int level, std::string_view domain, std::string_view message) {
  std::string line = timestamp();
  line.reserve(line.size() + domain.size() + message.size() + 8);
  line += std::to_string(level);
  line += ' ';
  line += domain;
  line += ' ';
  line += message;
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

int QELLogging::threshold() { return thresholdStorage().load(std::memory_order_relaxed); }

void QELLogging::setThreshold(int threshold) { thresholdStorage().store(threshold, std::memory_order_relaxed); }

void QELLogging::setSink(Sink sink) {
  auto next = sink ? std::make_shared<Installed>(std::move(sink)) : nullptr;
  auto& state = sinkState();
  std::shared_ptr<Installed> previous;  // released outside the lock: its captures may log
  std::unique_lock lock(state.mutex);
  previous = std::exchange(state.installed, std::move(next));
  if (!previous) return;
  std::size_t own = 0;
  for (const Call* call = innermostCall; call; call = call->outer) own += call->installed == previous.get();
  state.idle.wait(lock, [&] { return previous->calls == own; });
}

QELLogging::Sink QELLogging::sink() {
  auto& state = sinkState();
  const std::lock_guard lock(state.mutex);
  return state.installed ? state.installed->sink : Sink();
}

std::string QELLogging::escaped(std::string_view text) { return escape(text, true); }

void QELLogging::write(int level, std::string_view domain, std::string_view message) {
  std::string safeDomain, safeMessage;
  if (!isLineSafe(domain)) domain = safeDomain = escape(domain, false);
  if (!isLineSafe(message)) message = safeMessage = escape(message, false);

  auto& state = sinkState();
  std::shared_ptr<Installed> installed;
  {
    const std::lock_guard lock(state.mutex);
    installed = state.installed;
    if (installed) ++installed->calls;
  }
  if (!installed) return writeToStandardError(level, domain, message);

  const Call call{installed.get(), innermostCall};
  innermostCall = &call;
  struct Done {
    SinkState& state;
    Installed& installed;
    const Call& call;
    ~Done() {
      innermostCall = call.outer;
      const std::lock_guard lock(state.mutex);
      --installed.calls;
      state.idle.notify_all();
    }
  } done{state, *installed, call};
  installed->sink(level, domain, message);
}

bool QELRepeatedLines::admit(std::string_view format, std::string* suffix) {
  const auto now = RunLoop::current().now();
  auto burst = std::find_if(bursts_.begin(), bursts_.end(), [&](const Burst& b) { return b.format == format; });
  if (burst == bursts_.end()) {
    bursts_.push_back({std::string(format), now + window_, 0});
    return true;
  }
  if (now < burst->until) {
    ++burst->left;
    return false;
  }
  if (burst->left == 1) *suffix = " (repeated once)";
  if (burst->left > 1) *suffix = " (repeated " + withThousands(burst->left) + " times)";
  burst->left = 0;
  burst->until = now + window_;
  return true;
}

}  // namespace qel::core
