#include "cabinsim/CommandLine.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>

namespace cabinsim {

namespace {

bool parseInt(const std::string& text, long min, long max, long& out) {
  long value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < min || value > max) {
    return false;
  }
  out = value;
  return true;
}

bool parseDouble(const std::string& text, double min, double max, double& out) {
  if (text.empty()) {
    return false;
  }
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size() || !std::isfinite(value) || value < min || value > max) {
    return false;
  }
  out = value;
  return true;
}

bool parseResolutions(const std::string& text, std::vector<Resolution>& out) {
  std::vector<Resolution> list;
  std::size_t start = 0;
  while (start <= text.size()) {
    const auto comma = text.find(',', start);
    const std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    const auto x = item.find('x');
    long w = 0;
    long h = 0;
    if (x == std::string::npos || !parseInt(item.substr(0, x), 16, 8192, w) ||
        !parseInt(item.substr(x + 1), 16, 8192, h)) {
      return false;
    }
    const Resolution r{static_cast<int>(w), static_cast<int>(h)};
    for (const Resolution& seen : list) {
      if (seen == r) {
        return false;
      }
    }
    list.push_back(r);
    if (comma == std::string::npos) {
      break;
    }
    start = comma + 1;
  }
  out = std::move(list);
  return !out.empty();
}

}  // namespace

std::string usageText() {
  return R"(usage: cabin-sim [--host 127.0.0.1] [--port 0] [--ca-out FILE] [--interval SECONDS]
                 [--resolutions 1024x768,800x600,400x300] [--cert FILE --key FILE] [fault flags]

A cabin server for development and tests. One HTTPS port serves
  GET /skelion/services/maps/v1/flight_map   the map data (JSON, "images": [{width, height, src}])
  GET /maps/<W>x<H>/<N>.png                   the rendered moving map, update N
  WebSocket /skelion/events                   a "core.maps.map_update" event on every update
Once it accepts connections, the first line on standard output is
"listening https://HOST:PORT". It runs until SIGINT or SIGTERM. Logs go to
standard error.

Options:
  --host HOST            address to bind, also put in the certificate (default 127.0.0.1)
  --port PORT            port to bind, 0 for any free port (default 0)
  --ca-out FILE          write the CA certificate (PEM) that clients must trust here
                         (with --cert: the last certificate of that chain)
  --cert FILE --key FILE serve this certificate chain and key (PEM) instead of a
                         throw-away CA and certificate made at start
  --interval SECONDS     time between map updates, fractions allowed (default 5)
  --resolutions LIST     comma-separated WxH sizes, in the order listed
                         (default 1024x768,800x600,400x300)
  --seed N               seed for the random faults (default 20240611, so runs repeat)
  -h, --help             this text

Fault flags (all off by default):
  --fail-rest N                the first N map data requests answer 503
  --fail-rest-rate P           then each map data request answers 503 with probability P
  --fail-rest-for SECONDS      map data answers 503 for this long after the first request
  --malformed-rest N            the next N map data answers are malformed ("images" not a list)
  --drop-events-every SECONDS  close every event connection this often
  --malformed-events-every N   every Nth push is malformed instead of the update, the
                               kinds in turn: invalid JSON text, a frame that is not an
                               object, "images" not a string, "images" text not JSON,
                               a frame over 1 MiB
  --fail-images N              the first N image requests answer 500
  --fail-images-rate P         then each image request answers 500 with probability P
  --delay-images MS            every image answer waits MS milliseconds
  --non-image-body             image requests answer 200 with text instead of a PNG
  --image-host PREFIX          make "src" an absolute URL: PREFIX followed by the path
                               (for example https://elsewhere.example:8443)
)";
}

std::optional<CommandLine> parseCommandLine(const std::vector<std::string>& args, std::string& error) {
  CommandLine line;
  ServerOptions& o = line.options;
  FaultOptions& f = o.faults;

  auto intFlag = [](long min, long max, auto setter) {
    return [=](const std::string& v) {
      long n = 0;
      if (!parseInt(v, min, max, n)) {
        return false;
      }
      setter(n);
      return true;
    };
  };
  auto doubleFlag = [](double min, double max, double& target) {
    return [=, &target](const std::string& v) { return parseDouble(v, min, max, target); };
  };
  auto stringFlag = [](std::string& target) {
    return [&target](const std::string& v) {
      target = v;
      return !v.empty();
    };
  };

  const std::map<std::string, std::function<bool(const std::string&)>> withValue = {
      {"--host", stringFlag(o.host)},
      {"--port", intFlag(0, 65535, [&](long n) { o.port = static_cast<std::uint16_t>(n); })},
      {"--ca-out", stringFlag(o.caOut)},
      {"--cert", stringFlag(o.certFile)},
      {"--key", stringFlag(o.keyFile)},
      {"--interval", doubleFlag(0.01, 86400, o.intervalSeconds)},
      {"--resolutions", [&](const std::string& v) { return parseResolutions(v, o.resolutions); }},
      {"--seed", [&](const std::string& v) {
         const auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), o.seed);
         return ec == std::errc() && end == v.data() + v.size();
       }},
      {"--fail-rest", intFlag(0, 1'000'000'000, [&](long n) { f.failRest = static_cast<int>(n); })},
      {"--fail-rest-rate", doubleFlag(0, 1, f.failRestRate)},
      {"--fail-rest-for", doubleFlag(0, 86400, f.failRestForSeconds)},
      {"--malformed-rest", intFlag(0, 1'000'000'000, [&](long n) { f.malformedRest = static_cast<int>(n); })},
      {"--drop-events-every", doubleFlag(0, 86400, f.dropEventsEverySeconds)},
      {"--malformed-events-every", intFlag(0, 1'000'000'000, [&](long n) { f.malformedEventsEvery = static_cast<int>(n); })},
      {"--fail-images", intFlag(0, 1'000'000'000, [&](long n) { f.failImages = static_cast<int>(n); })},
      {"--fail-images-rate", doubleFlag(0, 1, f.failImagesRate)},
      {"--delay-images", intFlag(0, 600'000, [&](long n) { f.delayImagesMs = static_cast<int>(n); })},
      {"--image-host", stringFlag(f.imageHost)},
  };

  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string flag = args[i];
    std::optional<std::string> value;
    if (const auto eq = flag.find('='); flag.starts_with("--") && eq != std::string::npos) {
      value = flag.substr(eq + 1);
      flag = flag.substr(0, eq);
    }
    if (flag == "--help" || flag == "-h") {
      line.help = true;
      continue;
    }
    if (flag == "--non-image-body") {
      if (value) {
        error = "--non-image-body takes no value";
        return std::nullopt;
      }
      f.nonImageBody = true;
      continue;
    }
    const auto handler = withValue.find(flag);
    if (handler == withValue.end()) {
      error = "unknown option " + flag;
      return std::nullopt;
    }
    if (!value) {
      if (i + 1 >= args.size()) {
        error = flag + " needs a value";
        return std::nullopt;
      }
      value = args[++i];
    }
    if (!handler->second(*value)) {
      error = "bad value for " + flag + ": \"" + *value + "\"";
      return std::nullopt;
    }
  }
  if (o.certFile.empty() != o.keyFile.empty()) {
    error = "--cert and --key go together";
    return std::nullopt;
  }
  return line;
}

}  // namespace cabinsim
