// kx::TMostRecentlyUsedCache<K, V>: a bounded map that evicts the entry that
// has gone unused longest.
//
// Lookups are one ordered-map search plus, on a hit, a constant-time move to
// the front of the recency list. Entries hold a kx::P<V>, so the cache keeps
// its values alive; an evicted value is released, and destroyed there if
// nobody else holds it. Not thread-safe: one thread at a time.
#pragma once

#include <cstdint>
#include <cstddef>
#include <list>
#include <map>

#include "kx/base.h"

namespace kx {

template <class K, class V, class Less = std::less<K>>
class TMostRecentlyUsedCache : public CBase {
  struct Entry;
  using Table = std::map<K, Entry, Less>;
  using Recency = std::list<typename Table::iterator>;

  struct Entry {
    P<V> value;
    typename Recency::iterator place;
  };

 public:
  static constexpr int32_t kDefaultLimit = 1024;

  explicit TMostRecentlyUsedCache(int32_t limit = kDefaultLimit) : limit_(limit < 0 ? 0 : limit) {}
  ~TMostRecentlyUsedCache() override { clear(); }

  TMostRecentlyUsedCache(const TMostRecentlyUsedCache&) = delete;
  TMostRecentlyUsedCache& operator=(const TMostRecentlyUsedCache&) = delete;

  // The value, made the most recently used; null on a miss.
  P<V> get(const K& key) {
    auto it = table_.find(key);
    if (it == table_.end()) return P<V>();
    touch(it->second);
    return it->second.value;
  }

  // Inserts or replaces. A replaced value is released here. Only a new key
  // can evict, and only while autoEnforceLimit is on.
  void set(const K& key, const P<V>& value) {
    auto found = table_.find(key);
    if (found != table_.end()) {
      P<V> old = std::move(found->second.value);
      found->second.value = value;
      touch(found->second);
      return;  // `old` goes here, after the cache is consistent again
    }
    auto it = table_.emplace(key, Entry{value, recency_.end()}).first;
    recency_.push_front(it);
    it->second.place = recency_.begin();
    if (autoEnforceLimit_) enforceLimit();
  }

  // Removes the entry; false when there was none.
  bool remove(const K& key) {
    auto it = table_.find(key);
    if (it == table_.end()) return false;
    removeEntry(it);
    return true;
  }

  bool contains(const K& key) const { return table_.count(key) != 0; }
  // The entry that leaves next, without touching it: its value, and its key
  // in `key` when that isn't null; null when the cache is empty.
  P<V> peekLeastRecentlyUsed(K* key = nullptr) const {
    if (recency_.empty()) return P<V>();
    if (key) *key = recency_.back()->first;
    return recency_.back()->second.value;
  }

  int32_t getCount() const { return static_cast<int32_t>(table_.size()); }
  int32_t getLimit() const { return limit_; }
  bool getAutoEnforceLimit() const { return autoEnforceLimit_; }

  void setAutoEnforceLimit(bool enabled) {
    if (enabled == autoEnforceLimit_) return;
    autoEnforceLimit_ = enabled;
    if (enabled) enforceLimit();
  }

  // Evicts least recently used entries down to the limit.
  void enforceLimit() {
    while (table_.size() > static_cast<size_t>(limit_)) removeEntry(recency_.back());
  }

  void clear() {
    while (!recency_.empty()) removeEntry(recency_.back());
  }

  // Walks the entries in key order. The cache must not change during a walk.
  class CEnum {
   public:
    // Starts at the first key not less than `from`, in logarithmic time: a
    // walk over the keys of one owner (keys ordered by owner first) starts
    // there and stops when getKey leaves the owner.
    CEnum(const TMostRecentlyUsedCache& cache, const K& from)
        : it_(cache.table_.lower_bound(from)), end_(cache.table_.end()) {}
    // Moves to the next entry; false behind the last one.
    bool next() {
      if (started_) ++it_;
      started_ = true;
      return it_ != end_;
    }
    const K& getKey() const { return it_->first; }
    const P<V>& getValue() const { return it_->second.value; }

   private:
    typename Table::const_iterator it_;
    typename Table::const_iterator end_;
    bool started_ = false;
  };

 private:
  void touch(Entry& entry) {
    if (entry.place != recency_.begin()) recency_.splice(recency_.begin(), recency_, entry.place);
  }

  // The value is released after the entry is gone, so a value whose
  // destructor reaches back into the cache sees it consistent.
  void removeEntry(typename Table::iterator it) {
    P<V> value = std::move(it->second.value);
    recency_.erase(it->second.place);
    table_.erase(it);
  }

  int32_t limit_;
  Table table_;
  Recency recency_;
  bool autoEnforceLimit_ = true;
};

}  // namespace kx
