// Bulk blocks from mmap, and the per-thread bump allocator over them.
#include "platform/db/bulk_arena.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <mutex>

namespace quillo::db {

namespace {

// Blocks freed lately, kept for the next allocations: a run that releases
// the rows it has read while it builds messages reuses those pages instead
// of having the system zero and map new ones. At most kCachedBlocks (8 MB)
// stay with the process after everything is freed.
constexpr size_t kCachedBlocks = 4;

struct BlockCache {
  std::mutex mutex;
  void* blocks[kCachedBlocks] = {};
  size_t count = 0;
};

BlockCache& Cache() {
  static BlockCache* cache = new BlockCache();  // Never destroyed: frees may come late.
  return *cache;
}

void* MapBlock() {
  // Twice the size, then the unaligned ends are given back.
  const size_t span = 2 * kBulkBlockBytes;
  void* raw = ::mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) throw std::bad_alloc();
  const auto start = reinterpret_cast<std::uintptr_t>(raw);
  const std::uintptr_t aligned = (start + kBulkBlockBytes - 1) & ~(kBulkBlockBytes - 1);
  if (aligned > start) ::munmap(raw, aligned - start);
  const std::uintptr_t end = start + span;
  const std::uintptr_t block_end = aligned + kBulkBlockBytes;
  if (end > block_end) ::munmap(reinterpret_cast<void*>(block_end), end - block_end);
  void* block = reinterpret_cast<void*>(aligned);
#ifdef MADV_HUGEPAGE
  ::madvise(block, kBulkBlockBytes, MADV_HUGEPAGE);
#endif
#ifdef MADV_POPULATE_WRITE
  // One call instead of a fault per page (older kernels refuse it: no harm).
  ::madvise(block, kBulkBlockBytes, MADV_POPULATE_WRITE);
#endif
  return block;
}

}  // namespace

void* AllocateBulkBlock() {
  {
    BlockCache& cache = Cache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (cache.count > 0) return cache.blocks[--cache.count];
  }
  return MapBlock();
}

void FreeBulkBlock(void* block) {
  {
    BlockCache& cache = Cache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (cache.count < kCachedBlocks) {
      cache.blocks[cache.count++] = block;
      return;
    }
  }
  ::munmap(block, kBulkBlockBytes);
}

namespace {

// The start of every arena block: the number of live objects in it, plus one
// while it is some thread's current block.
struct BlockHeader {
  std::atomic<size_t> live{1};
};
constexpr size_t kHeaderBytes = 64;
static_assert(sizeof(BlockHeader) <= kHeaderBytes);

void Unref(BlockHeader* header) noexcept {
  if (header->live.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    header->~BlockHeader();
    FreeBulkBlock(header);
  }
}

// The calling thread's current block and the next free byte in it.
struct CurrentBlock {
  BlockHeader* header = nullptr;
  size_t used = 0;
  ~CurrentBlock() {
    if (header) Unref(header);
  }
};
thread_local CurrentBlock current;

}  // namespace

void* BulkArena::Allocate(size_t bytes, size_t align) {
  if (bytes == 0) bytes = 1;
  size_t at = (current.used + align - 1) & ~(align - 1);
  if (!current.header || at + bytes > kBulkBlockBytes) {
    auto* header = new (AllocateBulkBlock()) BlockHeader();
    if (current.header) Unref(current.header);
    current.header = header;
    at = (kHeaderBytes + align - 1) & ~(align - 1);
  }
  current.used = at + bytes;
  current.header->live.fetch_add(1, std::memory_order_relaxed);
  return reinterpret_cast<char*>(current.header) + at;
}

void BulkArena::Deallocate(void* p) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(p);
  Unref(reinterpret_cast<BlockHeader*>(address & ~(kBulkBlockBytes - 1)));
}

}  // namespace quillo::db
