// Tests of dmMessageParm: splitting a header line into name and value.
#include "message/dm_message_parm.h"

#include <gtest/gtest.h>

#include <memory>

#include "platform/object.h"

namespace quillo {
namespace {

TEST(dmMessageParm, StartsEmpty) {
  dmMessageParm parm;
  EXPECT_EQ(parm.Name(), "");
  EXPECT_EQ(parm.Value(), "");
  EXPECT_EQ(parm.FullString(), "");
}

TEST(dmMessageParm, PropertiesAreStoredAsGivenWithoutSideEffects) {
  dmMessageParm parm;
  parm.Name("  N  ");
  parm.Value(" V:x ");
  parm.FullString("a:b");
  EXPECT_EQ(parm.Name(), "  N  ");
  EXPECT_EQ(parm.Value(), " V:x ");
  EXPECT_EQ(parm.FullString(), "a:b");
}

TEST(dmMessageParm, ParseSplitsAtTheFirstColonOnly) {
  dmMessageParm parm;
  parm.FullString("a:b:c");
  EXPECT_TRUE(parm.Parse());
  EXPECT_EQ(parm.Name(), "a");
  EXPECT_EQ(parm.Value(), "b:c");
}

TEST(dmMessageParm, ParseOfLeadingColonGivesEmptyNameAndSucceeds) {
  dmMessageParm parm;
  parm.FullString(":x");
  EXPECT_TRUE(parm.Parse());
  EXPECT_EQ(parm.Name(), "");
  EXPECT_EQ(parm.Value(), "x");
}

TEST(dmMessageParm, ParseWithoutColonClearsBothAndFails) {
  dmMessageParm parm;
  parm.Name("old");
  parm.Value("old");
  parm.FullString("abc");
  EXPECT_FALSE(parm.Parse());
  EXPECT_EQ(parm.Name(), "");
  EXPECT_EQ(parm.Value(), "");
  EXPECT_EQ(parm.FullString(), "abc");
}

TEST(dmMessageParm, ParseTrimsSpacesFromBothParts) {
  dmMessageParm parm;
  parm.FullString(" Subject :  Hi there ");
  EXPECT_TRUE(parm.Parse());
  EXPECT_EQ(parm.Name(), "Subject");
  EXPECT_EQ(parm.Value(), "Hi there");
}

TEST(dmMessageParm, ParseKeepsTabs) {
  dmMessageParm parm;
  parm.FullString("\tName :\tvalue\t ");
  EXPECT_TRUE(parm.Parse());
  EXPECT_EQ(parm.Name(), "\tName");
  EXPECT_EQ(parm.Value(), "\tvalue\t");
}

TEST(dmMessageParm, ParseOfEmptyLineFails) {
  dmMessageParm parm;
  EXPECT_FALSE(parm.Parse());
  EXPECT_EQ(parm.Name(), "");
}

TEST(dmMessageParm, CreatableByNameAndReachableByName) {
  ObjectPtr parm = CreateObject("dmMessageParm");
  ASSERT_NE(parm, nullptr);
  parm->Invoke("fullstring", CallKind::kPut, {Variant("Key : v")});
  EXPECT_TRUE(parm->Invoke("Parse", CallKind::kMethod).ToBool());
  EXPECT_EQ(parm->Invoke("Name", CallKind::kGet).ToString(), "Key");
  EXPECT_EQ(parm->Invoke("Value", CallKind::kGet).ToString(), "v");
  EXPECT_EQ(parm->Invoke("FullString", CallKind::kGet).ToString(), "Key : v");
}

TEST(dmMessageParm, PublishesItsMembersInInterfaceOrder) {
  dmMessageParm parm;
  const auto& members = parm.Members().members();
  ASSERT_EQ(members.size(), 7u);
  EXPECT_EQ(members[0].name, "Name");
  EXPECT_EQ(members[2].name, "Value");
  EXPECT_EQ(members[4].name, "FullString");
  EXPECT_EQ(members[6].name, "Parse");
}

}  // namespace
}  // namespace quillo
