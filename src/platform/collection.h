// Collection<T>: an ordered, 1-based list reachable by name.
//
// Items are appended without keys (Add), read by position (Item, 1-based;
// out of range raises error 9), removed by position, counted, and iterated
// with range-for. As an Object it publishes Count, Item, Add and Remove, so a
// by-name host sees every collection the same way. T is a value that
// converts to and from Variant: std::string or std::shared_ptr<SomeObject>.
// Thread-safety: none; owned and used by one thread.
#ifndef QUILLO_PLATFORM_COLLECTION_H_
#define QUILLO_PLATFORM_COLLECTION_H_

#include <memory>
#include <utility>
#include <vector>

#include "platform/error.h"
#include "platform/object.h"

namespace quillo {

// The by-name face shared by every Collection<T>.
class CollectionBase : public Object {
 public:
  // Number of items.
  virtual long Count() const = 0;
  // Item n (1-based) as a Variant; error 9 when out of range.
  virtual Variant ItemVariant(long n) const = 0;
  // Appends a value given as a Variant (converted to the item type).
  virtual void AddVariant(const Variant& v) = 0;
  // Removes item n (1-based); error 9 when out of range.
  virtual void Remove(long n) = 0;

  const MemberTable& Members() const override;
};

template <class T>
class Collection : public CollectionBase {
 public:
  Collection() = default;

  // Appends `item` at the end.
  void Add(T item) { items_.push_back(std::move(item)); }
  // Item n (1-based); error 9 when out of range.
  T& Item(long n) {
    Check(n);
    return items_[static_cast<size_t>(n - 1)];
  }
  const T& Item(long n) const {
    Check(n);
    return items_[static_cast<size_t>(n - 1)];
  }
  void Remove(long n) override {
    Check(n);
    items_.erase(items_.begin() + (n - 1));
  }
  void Clear() { items_.clear(); }
  long Count() const override { return static_cast<long>(items_.size()); }
  bool Empty() const { return items_.empty(); }

  auto begin() { return items_.begin(); }
  auto end() { return items_.end(); }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }
  void Reserve(size_t n) { items_.reserve(n); }

  Variant ItemVariant(long n) const override { return internal::ToVariant(Item(n)); }
  void AddVariant(const Variant& v) override {
    items_.push_back(internal::FromVariant<T>::Convert(v));
  }

 private:
  void Check(long n) const {
    if (n < 1 || n > Count()) Raise(err::kSubscriptOutOfRange);
  }

  std::vector<T> items_;
};

// Creates the collection on first use, so a reader never sees an absent list.
template <class T>
Collection<T>& EnsureCollection(std::shared_ptr<Collection<T>>& slot) {
  if (!slot) slot = std::make_shared<Collection<T>>();
  return *slot;
}

}  // namespace quillo

#endif  // QUILLO_PLATFORM_COLLECTION_H_
