#pragma once

// Replaces the program's operator new, for one source file of a test program: it counts, it fails when it is told to,
// and it ends the program when anything behind a block was written to.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

static long blocks = 0, allocationsLeft = -1;  // allocated and not freed; before one fails, negative for never
constexpr std::size_t GUARD_SIZE = 16;

// Not inlined: g++ takes malloc() and free() in sight for a mismatched pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
  char* const block = allocationsLeft == 0 ? nullptr : static_cast<char*>(std::malloc(size + 2 * GUARD_SIZE));
  if (block == nullptr) throw std::bad_alloc();
  if (allocationsLeft > 0) --allocationsLeft;
  ++blocks;
  std::memcpy(block, &size, sizeof size);
  std::memset(block + GUARD_SIZE + size, 'g', GUARD_SIZE);
  return block + GUARD_SIZE;
}
[[gnu::noinline]] void operator delete(void* pointer) noexcept {
  if (pointer == nullptr) return;
  --blocks;
  char* const block = static_cast<char*>(pointer) - GUARD_SIZE;
  std::size_t size = 0;
  std::memcpy(&size, block, sizeof size);
  const char* const guard = block + GUARD_SIZE + size;
  if (std::count(guard, guard + GUARD_SIZE, 'g') != GUARD_SIZE) std::abort();
  std::free(block);
}
void* operator new[](std::size_t size) { return operator new(size); }
// A sanitizer's own does not come to those above.
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept try {
  return operator new(size);
} catch (const std::bad_alloc&) {
  return nullptr;
}
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
    EXPECT_TRUE(!failed || ((lost == 0 || mayLoseBlocks) && check())) << lost << " lost after failure " << n;
    EXPECT_TRUE(failed || n > 0) << "nothing was allocated";
  }
}
