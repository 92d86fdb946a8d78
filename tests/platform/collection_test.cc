// Tests for Collection<T>: 1-based items, error 9 out of range, removal,
// iteration, creation on first use and the by-name face.
#include "platform/collection.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/error.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

TEST(Collection, ItemsAreOneBasedInInsertionOrder) {
  Collection<std::string> c;
  c.Add("a");
  c.Add("b");
  c.Add("c");
  EXPECT_EQ(c.Count(), 3);
  EXPECT_EQ(c.Item(1), "a");
  EXPECT_EQ(c.Item(3), "c");
}

TEST(Collection, OutOfRangeIsError9) {
  Collection<std::string> c;
  EXPECT_RUNTIME_ERROR(c.Item(1), err::kSubscriptOutOfRange);
  c.Add("a");
  EXPECT_RUNTIME_ERROR(c.Item(0), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(c.Item(2), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(c.Item(-1), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(c.Remove(2), err::kSubscriptOutOfRange);
}

TEST(Collection, RemoveShiftsTheLaterItems) {
  Collection<std::string> c;
  for (const char* s : {"a", "b", "c"}) c.Add(s);
  c.Remove(2);
  EXPECT_EQ(c.Count(), 2);
  EXPECT_EQ(c.Item(2), "c");
  c.Clear();
  EXPECT_TRUE(c.Empty());
}

TEST(Collection, IteratesInOrder) {
  Collection<std::string> c;
  for (const char* s : {"x", "y"}) c.Add(s);
  std::vector<std::string> seen;
  for (const std::string& s : c) seen.push_back(s);
  EXPECT_EQ(seen, (std::vector<std::string>{"x", "y"}));
}

TEST(Collection, EnsureCollectionCreatesOnFirstUseOnly) {
  std::shared_ptr<Collection<std::string>> slot;
  EnsureCollection(slot).Add("a");
  ASSERT_NE(slot, nullptr);
  auto* first = slot.get();
  EnsureCollection(slot).Add("b");
  EXPECT_EQ(slot.get(), first);
  EXPECT_EQ(slot->Count(), 2);
}

TEST(Collection, IsReachableByName) {
  auto c = std::make_shared<Collection<std::string>>();
  c->Invoke("Add", CallKind::kMethod, {Variant("one")});
  c->Invoke("add", CallKind::kMethod, {Variant(2)});
  EXPECT_EQ(c->Invoke("Count", CallKind::kGet).ToLong(), 2);
  EXPECT_EQ(c->Invoke("Item", CallKind::kMethod, {Variant(1)}).ToString(), "one");
  EXPECT_EQ(c->Invoke("Item", CallKind::kGet, {Variant(2)}).ToString(), "2");
  EXPECT_RUNTIME_ERROR(c->Invoke("Item", CallKind::kMethod, {Variant(3)}),
                       err::kSubscriptOutOfRange);
  c->Invoke("Remove", CallKind::kMethod, {Variant(1)});
  EXPECT_EQ(c->Invoke("Count", CallKind::kGet).ToLong(), 1);
  EXPECT_EQ(c->TypeName(), "Collection");
}

TEST(Collection, HoldsObjects) {
  auto inner = std::make_shared<Collection<std::string>>();
  Collection<std::shared_ptr<Collection<std::string>>> c;
  c.AddVariant(Variant(inner));
  EXPECT_EQ(c.Item(1), inner);
  EXPECT_EQ(c.ItemVariant(1).ToObject(), inner);
  EXPECT_RUNTIME_ERROR(c.AddVariant(Variant("text")), err::kTypeMismatch);
}

}  // namespace
}  // namespace quillo
