#include "qel/core/QELLogging.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace qel::core {
namespace {

constexpr int kDefaultThreshold = 3;

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

int& thresholdStorage() {
  static int threshold = initialThreshold();
  return threshold;
}

QELLogging::Sink& sinkStorage() {
  // Never destroyed, so that objects torn down at exit may still log.
  static QELLogging::Sink* const sink = new QELLogging::Sink;
  return *sink;
}

void writeToStandardError(int level, std::string_view domain, std::string_view message) {
  std::string line = std::to_string(level);
  line.reserve(line.size() + domain.size() + message.size() + 3);
  line += ' ';
  line += domain;
  line += ' ';
  line += message;
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

int QELLogging::threshold() { return thresholdStorage(); }

void QELLogging::setThreshold(int threshold) { thresholdStorage() = threshold; }

void QELLogging::setSink(Sink sink) { sinkStorage() = std::move(sink); }

QELLogging::Sink QELLogging::sink() { return sinkStorage(); }

std::string QELLogging::escaped(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\\':
        result += "\\\\";
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
    } else {
      result += c;
    }
  }
  return result;
}

void QELLogging::write(int level, std::string_view domain, std::string_view message) {
  // A copy, so that a sink may replace itself while it runs.
  const Sink sink = sinkStorage();
  if (sink) {
    sink(level, domain, message);
  } else {
    writeToStandardError(level, domain, message);
  }
}

}  // namespace qel::core
