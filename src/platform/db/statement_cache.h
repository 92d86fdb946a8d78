// A small cache from statement shape (the SQL text with its literals taken
// out) to the engine's prepared statement, so that texts differing only in
// their literal values are parsed and planned once.
// Thread-safety: none; one per connection.
#ifndef QUILLO_PLATFORM_DB_STATEMENT_CACHE_H_
#define QUILLO_PLATFORM_DB_STATEMENT_CACHE_H_

#include <cstddef>
#include <functional>
#include <list>
#include <string>
#include <unordered_map>
#include <utility>

namespace quillo::db {

// Maps shape text to a prepared handle H, keeping at most `capacity` entries
// and releasing the least recently used through `release`.
template <class H>
class StatementCache {
 public:
  StatementCache(size_t capacity, std::function<void(H&)> release)
      : capacity_(capacity), release_(std::move(release)) {}
  ~StatementCache() { Clear(); }
  StatementCache(const StatementCache&) = delete;
  StatementCache& operator=(const StatementCache&) = delete;

  // The handle for `shape`, or null when not cached; marks it recently used.
  H* Find(const std::string& shape) {
    auto it = index_.find(shape);
    if (it == index_.end()) return nullptr;
    order_.splice(order_.begin(), order_, it->second);
    return &it->second->second;
  }
  // Stores `handle` for `shape` (evicting the oldest entry when full).
  H* Insert(const std::string& shape, H handle) {
    if (index_.size() >= capacity_ && !order_.empty()) {
      auto& oldest = order_.back();
      release_(oldest.second);
      index_.erase(oldest.first);
      order_.pop_back();
    }
    order_.emplace_front(shape, std::move(handle));
    index_[shape] = order_.begin();
    return &order_.front().second;
  }
  // Releases every handle.
  void Clear() {
    for (auto& entry : order_) release_(entry.second);
    order_.clear();
    index_.clear();
  }
  size_t Size() const { return index_.size(); }

 private:
  using Entry = std::pair<std::string, H>;
  size_t capacity_;
  std::function<void(H&)> release_;
  std::list<Entry> order_;
  std::unordered_map<std::string, typename std::list<Entry>::iterator> index_;
};

}  // namespace quillo::db

#endif  // QUILLO_PLATFORM_DB_STATEMENT_CACHE_H_
