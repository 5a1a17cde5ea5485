#include "Host/_QELBroadcastMapsHostCache.h"

#include <qel/Format.h>
#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>
#include <qel/core/QELLogging.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

namespace qel::internal {

namespace {

namespace fs = std::filesystem;
using core::QELLogging;

constexpr std::string_view kDomain = lastPathComponent(__FILE__);
constexpr std::string_view kVersionLine = "QELMAPS-CACHE 1\n";

fs::path entryFile(const fs::path& directory, int width, int height) {
  return directory / ("map-" + std::to_string(width) + "x" + std::to_string(height) + ".entry");
}

bool isEntryName(const std::string& name) { return name.starts_with("map-") && name.ends_with(".entry"); }
bool isTemporaryName(const std::string& name) { return name.starts_with(".map-") && name.ends_with(".tmp"); }

std::int64_t milliseconds(std::chrono::system_clock::time_point at) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count();
}

std::string stringField(const boost::json::object& object, std::string_view key, bool* ok) {
  const auto* value = object.if_contains(key);
  if (!value || !value->is_string()) {
    *ok = false;
    return {};
  }
  return std::string(value->get_string());
}

std::int64_t integerField(const boost::json::object& object, std::string_view key, bool* ok) {
  const auto* value = object.if_contains(key);
  if (!value || !(value->is_int64() || value->is_uint64())) {
    *ok = false;
    return 0;
  }
  return value->is_int64() ? value->get_int64() : static_cast<std::int64_t>(value->get_uint64());
}

// write(2) until all is written, or the reason it stopped.
bool writeAll(int fd, const std::string& contents, std::string* why) {
  std::size_t done = 0;
  while (done < contents.size()) {
    const auto written = ::write(fd, contents.data() + done, contents.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      *why = std::strerror(errno);
      return false;
    }
    done += static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

std::shared_ptr<QELBroadcastMapsHostCache> QELBroadcastMapsHostCache::open(const fs::path& directory,
                                                                           std::function<Shown()> shown) {
  std::error_code error;
  fs::create_directories(directory, error);
  if (error || !fs::is_directory(directory, error)) {
    QELLogging::log("Map cache: %s cannot be used (%s); running without a cache.", 2, kDomain, directory.string(),
                    error ? error.message() : std::string("not a directory"));
    return nullptr;
  }
  auto cache = std::shared_ptr<QELBroadcastMapsHostCache>(new QELBroadcastMapsHostCache(directory, std::move(shown)));
  cache->index();
  return cache;
}

QELBroadcastMapsHostCache::QELBroadcastMapsHostCache(fs::path directory, std::function<Shown()> shown)
    : directory_(std::move(directory)), shown_(std::move(shown)) {}

void QELBroadcastMapsHostCache::index() {
  std::error_code error;
  for (auto it = fs::directory_iterator(directory_, error); !error && it != fs::directory_iterator();
       it.increment(error)) {
    const std::string name = it->path().filename().string();
    // What a crash left behind in the middle of a write.
    if (isTemporaryName(name)) {
      std::error_code ignored;
      fs::remove(it->path(), ignored);
      continue;
    }
    if (!isEntryName(name)) continue;
    if (auto entry = read(it->path(), false)) {
      bySource_[entry->source] = {it->path(), entry->validators, entry->receivedAt, entry->bytes.size()};
    }
  }
  if (error) warn("the directory cannot be listed: " + error.message());
}

std::optional<QELBroadcastMapsHostCache::Entry> QELBroadcastMapsHostCache::read(const fs::path& file, bool decode,
                                                                               bool quiet) {
  const auto refuse = [&](const std::string& why) -> std::optional<Entry> {
    if (!quiet) warn(file.filename().string() + " ignored: " + why);
    return std::nullopt;
  };
  std::error_code error;
  const auto status = fs::status(file, error);
  if (error) return quiet ? std::nullopt : refuse(error.message());
  if (fs::is_directory(status)) return refuse("a directory where an entry belongs");
  if (!fs::is_regular_file(status)) return refuse("not a regular file");
  const auto size = fs::file_size(file, error);
  if (error) return refuse(error.message());
  if (size > kMaxEntryBytes) return refuse(stringWithFormat("%d bytes, more than an entry may have", size));

  std::ifstream stream(file, std::ios::binary);
  std::string contents(static_cast<std::size_t>(size), '\0');
  if (!stream.read(contents.data(), static_cast<std::streamsize>(size))) {
    return refuse(std::string("cannot be read: ") + std::strerror(errno));
  }
  if (!std::string_view(contents).starts_with(kVersionLine)) return refuse("not an entry of this version");
  const auto headerEnd = contents.find('\n', kVersionLine.size());
  if (headerEnd == std::string::npos) return refuse("truncated");
  boost::system::error_code parseError;
  const auto header =
      boost::json::parse(std::string_view(contents).substr(kVersionLine.size(), headerEnd - kVersionLine.size()),
                         parseError);
  if (parseError || !header.is_object()) return refuse("its header is not a JSON object");
  const auto& fields = header.get_object();
  bool ok = true;
  Entry entry;
  entry.source = stringField(fields, "source", &ok);
  entry.validators.etag = stringField(fields, "etag", &ok);
  entry.validators.lastModified = stringField(fields, "lastModified", &ok);
  entry.record = stringField(fields, "record", &ok);
  entry.receivedAt = std::chrono::system_clock::time_point(std::chrono::milliseconds(integerField(fields, "receivedAt", &ok)));
  entry.width = static_cast<int>(integerField(fields, "width", &ok));
  entry.height = static_cast<int>(integerField(fields, "height", &ok));
  const auto bytes = integerField(fields, "bytes", &ok);
  if (!ok) return refuse("its header lacks a field or has one of the wrong type");
  const std::size_t bodyStart = headerEnd + 1;
  if (bytes < 0 || contents.size() - bodyStart != static_cast<std::uint64_t>(bytes)) {
    return refuse(stringWithFormat("truncated: %d bytes of the %d it announces", contents.size() - bodyStart, bytes));
  }
  entry.bytes.assign(contents.begin() + static_cast<std::ptrdiff_t>(bodyStart), contents.end());
  if (decode) {
    Image::Refusal refusal;
    entry.image = Image::fromData(entry.bytes, *core::QELConfiguration::current()->maxPixels, &refusal);
    if (!entry.image) {
      return refuse(refusal.overBudget ? "its picture has more pixels than allowed" : "its picture does not decode");
    }
    if (static_cast<int>(entry.image->width()) != entry.width ||
        static_cast<int>(entry.image->height()) != entry.height) {
      return refuse("its picture is not the size its header says");
    }
  }
  return entry;
}

std::optional<QELBroadcastMapsHostCache::Entry> QELBroadcastMapsHostCache::newest() {
  std::vector<const Indexed*> entries;
  for (const auto& [source, indexed] : bySource_) entries.push_back(&indexed);
  std::sort(entries.begin(), entries.end(), [](auto* a, auto* b) { return a->receivedAt > b->receivedAt; });
  for (const auto* indexed : entries) {
    if (auto entry = read(indexed->file, true)) return entry;
  }
  return std::nullopt;
}

std::optional<QELBroadcastMapsHostCache::Entry> QELBroadcastMapsHostCache::entryFor(int width, int height) {
  const auto file = entryFile(directory_, width, height);
  std::error_code error;
  if (!fs::exists(file, error)) return std::nullopt;
  return read(file, true);
}

std::optional<core::Validators> QELBroadcastMapsHostCache::validatorsFor(const std::string& url) {
  const auto found = bySource_.find(url);
  if (found == bySource_.end()) return std::nullopt;
  return found->second.validators;
}

std::optional<Data> QELBroadcastMapsHostCache::bodyFor(const std::string& url) {
  const auto found = bySource_.find(url);
  if (found == bySource_.end()) return std::nullopt;
  auto entry = read(found->second.file, false);
  if (!entry || entry->source != url) return std::nullopt;
  return std::move(entry->bytes);
}

void QELBroadcastMapsHostCache::transportDidSucceed(core::TransportChannel channel,
                                                    const core::TransportAnswer& answer) {
  // A 304 confirms what is kept; only new bytes are written.
  if (channel != core::TransportChannel::Picture || !answer.body || answer.notModified) return;
  // Kept once the service shows it: the queue hands the answer over right
  // after this report.
  RunLoop::current().postAfterCallout([weakSelf = weak_from_this(), url = answer.url, bytes = *answer.body,
                           validators = answer.validators] {
    if (auto self = weakSelf.lock()) self->keep(url, bytes, validators);
  });
}

void QELBroadcastMapsHostCache::keep(const std::string& url, const Data& bytes, const core::Validators& validators) {
  const auto shown = shown_();
  if (!shown.image || shown.source != url) return;
  Entry entry;
  entry.width = static_cast<int>(shown.image->width());
  entry.height = static_cast<int>(shown.image->height());
  entry.receivedAt = shown.receivedAt;
  boost::json::object header;
  header["source"] = url;
  header["etag"] = validators.etag;
  header["lastModified"] = validators.lastModified;
  header["receivedAt"] = milliseconds(entry.receivedAt);
  header["width"] = entry.width;
  header["height"] = entry.height;
  header["bytes"] = bytes.size();
  header["record"] = shown.record;
  std::string contents(kVersionLine);
  contents += boost::json::serialize(header);
  contents += '\n';
  contents.append(bytes.begin(), bytes.end());

  const auto file = entryFile(directory_, entry.width, entry.height);
  std::string why;
  if (!write(file, contents, &why)) {
    if (!warnedWrite_) warn("the picture could not be kept: " + why);
    warnedWrite_ = true;
    return;
  }
  warnedWrite_ = false;
  std::erase_if(bySource_, [&](const auto& item) { return item.second.file == file; });
  bySource_[url] = {file, validators, entry.receivedAt, bytes.size()};
  prune();
}

bool QELBroadcastMapsHostCache::write(const fs::path& file, const std::string& contents, std::string* why) {
  // Beside the entry, so that the rename stays within one file system.
  const fs::path temporary = directory_ / ("." + file.stem().string() + "-" + std::to_string(::getpid()) + ".tmp");
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    *why = std::string("cannot create ") + temporary.filename().string() + ": " + std::strerror(errno);
    return false;
  }
  bool ok = writeAll(fd, contents, why);
  if (ok && ::fsync(fd) != 0) {
    *why = std::string("cannot flush it to the disk: ") + std::strerror(errno);
    ok = false;
  }
  if (::close(fd) != 0 && ok) {
    *why = std::string("cannot close it: ") + std::strerror(errno);
    ok = false;
  }
  if (ok && ::rename(temporary.c_str(), file.c_str()) != 0) {
    *why = std::string("cannot rename it into place: ") + std::strerror(errno);
    ok = false;
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    return false;
  }
  // The rename itself is on the disk only once the directory is.
  if (const int directory = ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); directory >= 0) {
    ::fsync(directory);
    ::close(directory);
  }
  return true;
}

void QELBroadcastMapsHostCache::prune() {
  std::vector<std::pair<std::string, Indexed>> entries(bySource_.begin(), bySource_.end());
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.second.receivedAt > b.second.receivedAt; });
  int kept = 0;
  std::uint64_t bytes = 0;
  for (const auto& [source, indexed] : entries) {
    if (kept < kMaxEntries && bytes + indexed.size <= kMaxBytes) {
      ++kept;
      bytes += indexed.size;
      continue;
    }
    std::error_code ignored;
    fs::remove(indexed.file, ignored);
    bySource_.erase(source);
  }
}

void QELBroadcastMapsHostCache::warn(const std::string& what) {
  QELLogging::log("Map cache: %s", 2, kDomain, what);
}

}  // namespace qel::internal
