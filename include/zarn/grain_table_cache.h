// CVMDKGrainTableCache: the bounded set of grain tables in memory, shared by
// all extents of a disk and by the disks of its parent chain.
//
// The bound counts tables, whichever extent they belong to, and the table
// unused longest leaves first. The cache reads and writes no file: the grain
// directory fills it, and a table writes itself back when it leaves (on
// eviction, replacement, removal, clear or the cache's end) if nobody else
// holds it, else when its last holder lets go. So a dirty table is always
// reachable until it is written. A table that the limit pushes out is
// written before it leaves, so a failure reaches the caller that asked for
// the new table, and the dirty table stays.
//
// Reference counting as for every kx::CBase. One thread at a time, although
// one cache serves many extents and disks.
#pragma once

#include <cstdint>

#include "kx/base.h"
#include "kx/mru_cache.h"
#include "zarn/grain_table.h"

namespace zarn {

class CVMDKGrainDirectory;

class CVMDKGrainTableCache : public kx::CBase {
 public:
  static constexpr int32_t kDefaultLimit = 1024;

  // `directory` is only compared, never followed; keys order by its address,
  // then by table index, so one directory's tables are neighbours.
  struct CKey {
    const CVMDKGrainDirectory* directory;
    int64_t tableIndex;
    bool operator<(const CKey& other) const;
  };

  explicit CVMDKGrainTableCache(int32_t limit = kDefaultLimit);
  ~CVMDKGrainTableCache() override;
  CVMDKGrainTableCache(const CVMDKGrainTableCache&) = delete;
  CVMDKGrainTableCache& operator=(const CVMDKGrainTableCache&) = delete;

  // The table, made the most recently used; null on a miss.
  kx::P<CVMDKGrainTable> getCachedTable(const CVMDKGrainDirectory* directory, int64_t tableIndex);
  // Inserts or replaces; the entry becomes the most recently used. Only a new
  // entry can evict, and only while automatic enforcement is on. A table's
  // failure to write itself on the way out is raised here, and nothing
  // changes then.
  void setCachedTable(const CVMDKGrainDirectory* directory, int64_t tableIndex, CVMDKGrainTable* table);
  int32_t getCachedTableCount() const;

  // Off: nothing leaves by itself and the count may pass the limit. Turning it
  // on enforces the limit at once.
  void setAutoEnforceLimit(bool enabled);
  // Evicts least recently used tables down to the limit; a write failure
  // stops it and reaches the caller.
  void enforceLimit();

  // Flushes (and keeps) the tables of `directory`, by ascending index. The
  // first table error stops the walk and reaches the caller.
  void flushCachedTablesFromDirectoryToStream(const CVMDKGrainDirectory* directory);
  // Drops the tables of `directory`; dirty ones write themselves back.
  void removeCachedTablesFromDirectory(const CVMDKGrainDirectory* directory);
  void clear();

 private:
  using Cache = kx::TMostRecentlyUsedCache<CKey, CVMDKGrainTable>;

  // Writes and evicts the least recently used tables until at most `count`
  // are left.
  void evictDownTo(int32_t count);

  kx::P<Cache> cache_;
};

}  // namespace zarn
