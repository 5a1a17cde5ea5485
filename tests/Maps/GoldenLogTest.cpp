// One scripted scenario through every traced method and every failure path
// of the framework; what it logs (level, domain, text, in order) must match
// tests/Maps/golden/scenario.log line for line. The source line that each
// "Posting notification" line names is checked to be its own statement and
// then written as '#', so that editing the engine does not move the file.
// Lines of the core kit are left out: they are not the framework's.
//
//   QEL_GOLDEN_UPDATE=1 MapsModelTest --gtest_filter='GoldenLog*'   # rewrites the file

#include "MapsTestSupport.h"

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <QELMaps/QELMaps.h>

#include <qel/core/QELNotifications.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

namespace qel::testing {
namespace {

const std::string kGoldenFile = QEL_MAPS_TEST_DIR "/golden/scenario.log";

std::vector<std::string> readLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The first line that differs, numbered from 1; the whole difference is
// what `git diff` shows after QEL_GOLDEN_UPDATE=1 rewrote the file.
std::string firstDifference(const std::vector<std::string>& expected, const std::vector<std::string>& got) {
  std::size_t i = 0;
  while (i < expected.size() && i < got.size() && expected[i] == got[i]) ++i;
  std::ostringstream out;
  out << "line " << i + 1 << "\n expected: " << (i < expected.size() ? expected[i] : "(end)")
      << "\n got:      " << (i < got.size() ? got[i] : "(end)");
  return out.str();
}

class GoldenLog : public MapsTest {
 protected:
  // The framework's own lines, the announced source lines checked and hidden.
  std::vector<std::string> captured() {
    static const std::set<std::string> kDomains = {"_QELBroadcastMaps.cpp", "_QELBroadcastMapsController.cpp",
                                                   "_QELHostname.h", "QELBroadcastMapsV1.cpp"};
    static const std::regex kAnnounced(R"(^\[(\S+) (\d+)\] (.*)$)");
    std::vector<std::string> lines;
    for (const auto& record : env_.logs()) {
      if (!kDomains.contains(record.domain)) continue;
      std::string message = record.message;
      std::smatch match;
      if (std::regex_match(message, match, kAnnounced) && match[3] != "Invalid event received from server.") {
        const std::string text = match[3];
        const auto posting = text.find("Posting notification: ");
        if (posting != std::string::npos) {
          EXPECT_NE(sourceLine(match[1], std::stoi(match[2])).find(text.substr(posting)), std::string::npos)
              << message << " does not name its own statement";
        }
        message = "[" + match[1].str() + " #] " + text;
      }
      auto line = "L" + std::to_string(record.level) + " " + record.domain + " " + message;
      // Each composition of the service URL is logged; how many times the
      // core kit composes it for one request is its own business.
      if (record.domain == "_QELHostname.h" && !lines.empty() && lines.back() == line) continue;
      lines.push_back(std::move(line));
    }
    return lines;
  }

  static std::string sourceLine(const std::string& file, int number) {
    const std::string path = std::string(QEL_MAPS_SOURCE_DIR) + "/BroadcastMaps/" +
                             (file == "_QELBroadcastMaps.cpp" ? "" : "Controller/") + file;
    std::ifstream source(path);
    std::string line;
    for (int i = 0; i < number && std::getline(source, line); ++i) {}
    return line;
  }

  void push(const boost::json::object& info) {
    events().deliver("core.maps.map_update", info);
    drain();
  }
  void answerBody(std::string_view body) { answer(core::QELRequest::Kind::REST, body); }
};

TEST_F(GoldenLog, ScenarioLogsWhatTheGoldenFileSays) {
  core::QELConfiguration limits;
  limits.host = kCabinHost;
  limits.maxPixels = 47;      // 8x6 pictures are refused, 4x3 ones pass
  limits.maxMapEntries = 3;
  core::QELConfiguration::set(limits);
  const auto small = pngBytes(4, 3, 1);

  // Creation, start without data, the first answer, the first picture.
  auto service = QELBroadcastMapsV1::create();
  service->start();
  answerRest({imageEntry(800, 600, "/a.png"), imageEntry(400, 300, "/b.png")});
  answerImage(small);

  // A choice the record lacks; an update moves the fallback's source; a
  // picture over the budget; a failure while disconnected.
  service->setCurrentResolutionWithCGSize({1024, 768});
  push(updateInfo({imageEntry(800, 600, "/a2.png")}));
  answerImage(pngBytes(8, 6, 1));
  push(updateInfo({imageEntry(800, 600, "/a3.png")}));
  failImage();

  // Connected: a reload, a failure retried after five seconds, the same picture.
  events().connect();
  answerRest({imageEntry(800, 600, "/a3.png"), imageEntry(1024, 768, "/c.png")});
  failImage();
  advance(5);
  answerImage(small);
  push(updateInfo({imageEntry(1024, 768, "/c2.png")}));
  answerImage(small);

  // No choice and a first entry without a source: no image URL.
  service->setCurrentResolution(nullptr);
  events().connect();  // already connected: nothing
  service->broadcastMaps()->broadcastMapsController()->reloadData();
  answerRest({imageEntry(640, 480, nullptr), imageEntry(800, 600, "/a.png")});

  // The event's name is only logged, never checked.
  service->broadcastMaps()->broadcastMapsController()->processEvent(
      "any.other.name", std::make_shared<const boost::json::object>(updateInfo({imageEntry(400, 300, "/b.png")})));
  // Events that are refused, and some that are dropped silently: text that
  // is not JSON, or JSON that is a bare number or string.
  push({{"other", 1}});
  push({{"images", 5}});
  push({{"images", "[7]"}});
  push({{"images", "{}"}});
  push({{"images", "[{"}});
  push({{"images", "42"}});
  push({{"images", "\"text\""}});
  push(updateInfo({imageEntry(1, 1, "/1.png"), imageEntry(2, 2, "/2.png")}));
  // Answers that are refused, and some that are dropped silently.
  const char* bodies[] = {"[]", R"({"images": null})", R"({"images": [1]})", "<html>", "42", "true",
                          R"({"images": [{"width":1,"height":1},{"width":2,"height":2},{"width":3,"height":3},{"width":4,"height":4}]})"};
  for (const char* body : bodies) {
    service->broadcastMaps()->broadcastMapsController()->reloadData();
    answerBody(body);
  }

  // Losing the channel, an empty record, a failed reload after its retries.
  events().disconnect();
  events().connect();
  answerBody("{}");
  service->broadcastMaps()->broadcastMapsController()->reloadData();
  for (int attempt = 0; attempt < 4; ++attempt) {
    answer(core::QELRequest::Kind::REST, std::nullopt);
    advance(30);  // the longest wait before a retry
  }

  // Another sender's stop, then the end of everything.
  core::qelInternalCenter().postNotificationName("BROADCAST_MAPS_IMAGE_DID_STOP_RECEIVING_IMAGE",
                                                 std::make_shared<NotificationRecorder>());
  service.reset();
  drain();

  const auto lines = captured();
  if (std::getenv("QEL_GOLDEN_UPDATE")) {
    std::ofstream out(kGoldenFile);
    for (const auto& line : lines) out << line << "\n";
    GTEST_SKIP() << "rewrote " << kGoldenFile;
  }
  const auto expected = readLines(kGoldenFile);
  EXPECT_TRUE(lines == expected) << "the log differs from " << kGoldenFile
                                 << " (QEL_GOLDEN_UPDATE=1 rewrites it) at " << firstDifference(expected, lines);
}

}  // namespace
}  // namespace qel::testing
