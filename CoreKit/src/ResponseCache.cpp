#include "qel/core/ResponseCache.h"

namespace qel::core {
namespace {

std::shared_ptr<ResponseCache>& slot() {
  thread_local std::shared_ptr<ResponseCache> cache;
  return cache;
}

}  // namespace

std::shared_ptr<ResponseCache> ResponseCache::current() { return slot(); }

void ResponseCache::setCurrent(std::shared_ptr<ResponseCache> cache) { slot() = std::move(cache); }

}  // namespace qel::core
