#pragma once

#include <qel/Image.h>
#include <qel/core/ResponseCache.h>
#include <qel/core/TransportMonitor.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace qel::internal {

// The host's disk cache: the last picture of each resolution, kept across
// runs in a directory of the application's, so that a restarted application
// shows its map at once and asks the server whether it changed instead of
// downloading it again.
//
// One file per resolution ("map-1024x768.entry"): a version line, a line of
// JSON (source, validators, when it was received, the map record it came
// with, the byte count), then the picture's encoded bytes. A file is written
// whole to a temporary name, flushed to the disk and renamed over the old
// one, so that a crash at any moment leaves the old entry or the new one. At
// most `maxEntries` files and `maxBytes` bytes: the oldest go first.
//
// Whatever is wrong with the directory or an entry (missing, corrupt,
// truncated, of another version, oversized, a directory in a file's place,
// unreadable, a full disk) costs one log line and that entry; the map runs
// as without a cache.
//
// It learns of pictures from the transports (an answer's bytes and
// validators) and keeps one once the service has shown it; it answers the
// request transport's revalidation.
//
// Threading: the host's loop thread only.
//
//   auto cache = QELBroadcastMapsHostCache::open(directory, shownSource);
//   if (auto entry = cache->newest()) lastPicture.restore(entry->image, entry->source, entry->receivedAt);
//   core::ResponseCache::setCurrent(cache);
//   core::TransportMonitor::current().addObserver(cache);
class QELBroadcastMapsHostCache : public core::ResponseCache,
                                  public core::TransportObserver,
                                  public std::enable_shared_from_this<QELBroadcastMapsHostCache> {
 public:
  static constexpr int kMaxEntries = 8;
  static constexpr std::uint64_t kMaxBytes = 64ull * 1024 * 1024;
  // The largest picture the transports accept, and room for the header.
  static constexpr std::uint64_t kMaxEntryBytes = 17ull * 1024 * 1024;

  struct Entry {
    std::string source;
    core::Validators validators;
    std::chrono::system_clock::time_point receivedAt{};
    std::string record;  // the map record's JSON text
    int width = 0;
    int height = 0;
    Data bytes;
    std::shared_ptr<const Image> image;  // decoded within the pixel budget
  };

  // The picture the service shows now, and the source and record it came
  // from; empty picture: none.
  struct Shown {
    std::shared_ptr<const Image> image;
    std::optional<std::string> source;
    std::string record;
    // When the application was shown it, so that a later run tells the
    // same age.
    std::chrono::system_clock::time_point receivedAt{};
  };

  // A cache in `directory` (made if missing), or empty with a log line when
  // it cannot be used. `shown` reads what the service shows.
  static std::shared_ptr<QELBroadcastMapsHostCache> open(const std::filesystem::path& directory,
                                                         std::function<Shown()> shown);

  // The entry received last, or the one for this size; empty when there is
  // none that reads and decodes.
  std::optional<Entry> newest();
  std::optional<Entry> entryFor(int width, int height);

  // core::ResponseCache
  std::optional<core::Validators> validatorsFor(const std::string& url) override;
  std::optional<Data> bodyFor(const std::string& url) override;
  // core::TransportObserver
  void transportDidSucceed(core::TransportChannel channel, const core::TransportAnswer& answer) override;

 private:
  QELBroadcastMapsHostCache(std::filesystem::path directory, std::function<Shown()> shown);
  struct Indexed {
    std::filesystem::path file;
    core::Validators validators;
    std::chrono::system_clock::time_point receivedAt{};
    std::uint64_t size = 0;
  };
  // Reads `file`; with `decode`, also decodes the picture. Empty, with a log
  // line, when anything is wrong with it.
  std::optional<Entry> read(const std::filesystem::path& file, bool decode, bool quiet = false);
  void index();
  // Keeps `bytes` as the entry of the picture the service now shows.
  void keep(const std::string& url, const Data& bytes, const core::Validators& validators);
  bool write(const std::filesystem::path& file, const std::string& contents, std::string* why);
  void prune();
  void warn(const std::string& what);

  std::filesystem::path directory_;
  std::function<Shown()> shown_;
  // Source -> entry, for revalidation without reading every file.
  std::map<std::string, Indexed> bySource_;
  bool warnedWrite_ = false;
};

}  // namespace qel::internal
