#include "zarn/grain_table_cache.h"

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
  cache_->set(CKey{directory, tableIndex}, kx::P<CVMDKGrainTable>::share(table));
}

int32_t CVMDKGrainTableCache::getCachedTableCount() const { return cache_->getCount(); }

void CVMDKGrainTableCache::setAutoEnforceLimit(bool enabled) { cache_->setAutoEnforceLimit(enabled); }

void CVMDKGrainTableCache::enforceLimit() { cache_->enforceLimit(); }

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
