#include "platform/collection.h"

namespace quillo {

const MemberTable& CollectionBase::Members() const {
  static const MemberTable table =
      MemberTable::Builder<CollectionBase>("Collection")
          .Method("Add", [](CollectionBase& c, Variant item) { c.AddVariant(item); })
          .Get("Count", [](CollectionBase& c) { return static_cast<std::int32_t>(c.Count()); })
          .Method("Item", [](CollectionBase& c, std::int32_t n) { return c.ItemVariant(n); })
          .Method("Remove", [](CollectionBase& c, std::int32_t n) { c.Remove(n); })
          .Build();
  return table;
}

}  // namespace quillo
