// Memory for bulk data that is built once and read many times: the rows of
// a materialised recordset, the messages of a campaign run.
//
// Memory comes in 2 MB blocks aligned on their size. Each block is asked to
// be backed by a huge page and filled in one go, so that a run touching
// hundreds of megabytes takes hundreds of page faults rather than hundreds
// of thousands (on virtual machines a fault costs microseconds, more than
// building a message).
//
// BulkArena hands out small objects from the calling thread's current block
// by bumping a pointer; a block goes back to the system when every object in
// it has been freed (from any thread) and it is no longer current. So a few
// objects that outlive the rest keep their blocks alive: the arena suits
// objects made and released together.
// Thread-safety: allocation uses the calling thread's block; freeing may
// happen on any thread.
#ifndef QUILLO_PLATFORM_DB_BULK_ARENA_H_
#define QUILLO_PLATFORM_DB_BULK_ARENA_H_

#include <cstddef>
#include <new>

namespace quillo::db {

// The size (and alignment) of a bulk block.
inline constexpr size_t kBulkBlockBytes = size_t{2} << 20;

// A new block of kBulkBlockBytes, aligned on its size; raises
// std::bad_alloc when the system has none.
void* AllocateBulkBlock();
// Returns a block from AllocateBulkBlock. The last few blocks freed are kept
// for the next AllocateBulkBlock (their contents are then undefined); the
// rest go back to the system.
void FreeBulkBlock(void* block);

// Small objects from shared bulk blocks.
class BulkArena {
 public:
  // The largest object the arena hands out.
  static constexpr size_t kMaxObjectBytes = 4096;
  // `bytes` (at most kMaxObjectBytes) aligned on `align` (at most 64).
  static void* Allocate(size_t bytes, size_t align);
  // Frees memory from Allocate.
  static void Deallocate(void* p) noexcept;
};

// A standard allocator over BulkArena (stateless, so every instance is
// equal), for std::allocate_shared and containers of small objects.
template <class T>
struct BulkAllocator {
  using value_type = T;
  BulkAllocator() = default;
  template <class U>
  BulkAllocator(const BulkAllocator<U>&) {}  // NOLINT: conversion between element types.
  T* allocate(size_t n) {
    if (n * sizeof(T) > BulkArena::kMaxObjectBytes) {
      return static_cast<T*>(::operator new(n * sizeof(T)));
    }
    return static_cast<T*>(BulkArena::Allocate(n * sizeof(T), alignof(T)));
  }
  void deallocate(T* p, size_t n) noexcept {
    if (n * sizeof(T) > BulkArena::kMaxObjectBytes) {
      ::operator delete(p);
    } else {
      BulkArena::Deallocate(p);
    }
  }
  template <class U>
  bool operator==(const BulkAllocator<U>&) const {
    return true;
  }
};

}  // namespace quillo::db

#endif  // QUILLO_PLATFORM_DB_BULK_ARENA_H_
