#pragma once

// Replaces the program's operator new: it counts, and fails when it is told to. For one source file of a test program.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

static long blocks = 0, allocationsLeft = -1;  // allocated and not freed; before one fails, negative for never

// Not inlined: g++ takes malloc() and free() in sight for a mismatched pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const block = allocationsLeft == 0 ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  if (allocationsLeft > 0) --allocationsLeft;
  ++blocks;
  return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
  blocks -= block == nullptr ? 0 : 1;
  std::free(block);
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { operator delete(block); }

/// Runs `action` with ever later allocations failing until none does; each failure passes `check` and, unless foreign
/// code is at work, loses no block.
template <typename Action, typename Check>
void FailEach(const Action& action, const Check& check, bool mayLoseBlocks = false) {
  bool failed = true;
  for (long n = 0; failed; ++n) {
    const long before = blocks;
    allocationsLeft = n;
    try {
      action();
      failed = false;
    } catch (const std::bad_alloc&) {
    }
    allocationsLeft = -1;
    const long lost = blocks - before;
    if (failed) {
      EXPECT_TRUE(check()) << "after failure " << n;
      EXPECT_TRUE(lost == 0 || mayLoseBlocks) << lost << " after failure " << n;
    } else {
      EXPECT_GT(n, 0);
    }
  }
}
