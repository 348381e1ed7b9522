#include "zarn/grain_table_cache.h"

#include <algorithm>
#include <cstdint>
#include <functional>

#include "kx/containers.h"

namespace zarn {

bool CVMDKGrainTableCache::CKey::operator<(const CKey& other) const {
  if (directory != other.directory) return std::less<const CVMDKGrainDirectory*>()(directory, other.directory);
  return tableIndex < other.tableIndex;
}

CVMDKGrainTableCache::CVMDKGrainTableCache(int32_t limit) : cache_(kx::create<Cache>(limit)) {}

CVMDKGrainTableCache::~CVMDKGrainTableCache() = default;

kx::P<CVMDKGrainTable> CVMDKGrainTableCache::getCachedTable(const CVMDKGrainDirectory* directory,
                                                            int64_t tableIndex) {
  return cache_->get(CKey{directory, tableIndex});
}

void CVMDKGrainTableCache::setCachedTable(const CVMDKGrainDirectory* directory, int64_t tableIndex,
                                          CVMDKGrainTable* table) {
  const CKey key{directory, tableIndex};
  if (cache_->getAutoEnforceLimit() && !cache_->contains(key)) evictDownTo(cache_->getLimit() - 1);
  cache_->set(key, kx::P<CVMDKGrainTable>::share(table));
}

void CVMDKGrainTableCache::evictDownTo(int32_t count) {
  while (cache_->getCount() > std::max(count, 0)) {
    CKey key{};
    // Written here rather than by its destructor, where a failure could only
    // be logged and the change would be lost.
    cache_->peekLeastRecentlyUsed(&key)->flushWithStream();
    cache_->remove(key);
  }
}

int32_t CVMDKGrainTableCache::getCachedTableCount() const { return cache_->getCount(); }

void CVMDKGrainTableCache::setAutoEnforceLimit(bool enabled) {
  if (enabled && !cache_->getAutoEnforceLimit()) evictDownTo(cache_->getLimit());
  cache_->setAutoEnforceLimit(enabled);
}

void CVMDKGrainTableCache::enforceLimit() { evictDownTo(cache_->getLimit()); }

void CVMDKGrainTableCache::flushCachedTablesFromDirectoryToStream(const CVMDKGrainDirectory* directory) {
  // Keys order by directory first: its tables are one run from its first key.
  for (Cache::CEnum it(*cache_, CKey{directory, INT64_MIN}); it.next() && it.getKey().directory == directory;) {
    it.getValue()->flushChangesToStream();
  }
}

void CVMDKGrainTableCache::removeCachedTablesFromDirectory(const CVMDKGrainDirectory* directory) {
  // Collected first: a table that leaves may write itself, and the walk must
  // not run over entries that are being removed.
  kx::TList<CKey> keys;
  for (Cache::CEnum it(*cache_, CKey{directory, INT64_MIN}); it.next() && it.getKey().directory == directory;) {
    keys.push_back(it.getKey());
  }
  for (const CKey& key : keys) cache_->remove(key);
}

void CVMDKGrainTableCache::clear() { cache_->clear(); }

}  // namespace zarn
