#pragma once

// Replaces the program's global allocation functions so that a test can bound
// and observe what the code under test allocates. Include it from exactly one
// source file of a program. The replaced new operators take their memory from
// malloc, and the replaced deletes give it back there.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace alloc_budget {

// While armed, a request above `single`, past `total_limit` bytes in all or
// past `count_limit` allocations throws std::bad_alloc. The largest request is
// recorded either way, refused or not.
struct Budget {
  bool armed = false;
  std::size_t largest = 0, total = 0, count = 0;
  std::size_t single = SIZE_MAX, total_limit = SIZE_MAX, count_limit = SIZE_MAX;
};
inline Budget budget;

}  // namespace alloc_budget

void* operator new(std::size_t size) {
  alloc_budget::Budget& b = alloc_budget::budget;
  if (b.armed && ((b.largest = std::max(b.largest, size)) > b.single ||
                  (b.total += size) > b.total_limit || ++b.count > b.count_limit))
    throw std::bad_alloc();
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size ? size : 1);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
