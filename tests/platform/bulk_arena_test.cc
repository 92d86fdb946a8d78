// Bulk blocks and the small-object arena over them.
#include "platform/db/bulk_arena.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

namespace quillo::db {
namespace {

TEST(BulkBlocks, AreAlignedOnTheirSizeAndWritableThroughout) {
  void* block = AllocateBulkBlock();
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % kBulkBlockBytes, 0u);
  std::memset(block, 0x5a, kBulkBlockBytes);
  EXPECT_EQ(static_cast<unsigned char*>(block)[kBulkBlockBytes - 1], 0x5a);
  FreeBulkBlock(block);
}

TEST(BulkBlocks, AFreedBlockIsReusedWithoutGoingBackToTheSystem) {
  // A block the system mapped again would come back zeroed; a reused one
  // keeps what was written in it.
  void* first = AllocateBulkBlock();
  std::memset(first, 0x77, kBulkBlockBytes);
  FreeBulkBlock(first);
  void* second = AllocateBulkBlock();
  EXPECT_EQ(second, first);
  EXPECT_EQ(static_cast<unsigned char*>(second)[0], 0x77);
  EXPECT_EQ(static_cast<unsigned char*>(second)[kBulkBlockBytes - 1], 0x77);
  FreeBulkBlock(second);
}

TEST(BulkBlocks, ManyBlocksFreedAndTakenAgainAreDistinct) {
  // More blocks than are ever kept: all distinct while held, and usable
  // again after a round of freeing.
  for (int round = 0; round < 3; ++round) {
    std::vector<void*> blocks;
    for (int i = 0; i < 12; ++i) blocks.push_back(AllocateBulkBlock());
    EXPECT_EQ(std::set<void*>(blocks.begin(), blocks.end()).size(), blocks.size());
    for (void* b : blocks) {
      std::memset(b, round, 4096);
      FreeBulkBlock(b);
    }
  }
}

TEST(BulkArena, ObjectsAreAlignedAndDoNotOverlap) {
  std::vector<char*> objects;
  for (int i = 0; i < 20000; ++i) {
    const size_t bytes = 1 + static_cast<size_t>(i % 200);
    auto* p = static_cast<char*>(BulkArena::Allocate(bytes, 16));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
    std::memset(p, i & 0xff, bytes);
    objects.push_back(p);
  }
  for (size_t i = 0; i < objects.size(); ++i) {
    const size_t bytes = 1 + i % 200;
    for (size_t j = 0; j < bytes; ++j) {
      ASSERT_EQ(static_cast<unsigned char>(objects[i][j]), i & 0xff) << i;
    }
  }
  for (char* p : objects) BulkArena::Deallocate(p);
}

}  // namespace
}  // namespace quillo::db
