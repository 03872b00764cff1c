#pragma once

// The one helper of the fuzz targets (include it from exactly one source per
// target: it replaces the global operator new). It holds the allocation
// budget and the split-stream input layout.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "msg/msg.h"
#include "tests/support/alloc_budget.h"

namespace fuzz {

// The decoders trust their input: a length of 2^31 - 1 allocates 2 GiB and a
// count of 2^31 - 1 appends blank records until memory runs out. Those are
// designed outcomes, not faults. While a budget is armed, a request above
// `largest_allowed`, or past the budget's total bytes or number of
// allocations, throws std::bad_alloc, which the targets treat as "not run":
// past it the library's state is no longer comparable with anything.
// The largest request is recorded either way, refused or not.
inline alloc_budget::Budget& budget = alloc_budget::budget;
constexpr std::size_t largest_allowed = 256u << 10;

// Codes that no result takes: the contractual exceptions (std::out_of_range
// for a frame length of -10, std::length_error for a negative text length)
// and a refusal of the budget.
constexpr int kOutOfRange = INT32_MIN, kLengthError = INT32_MIN + 1, kRefused = INT32_MIN + 2;

// Runs f() under a fresh budget: its result (a bool as 0 / 1) or one of the
// codes above.
template <class F>
int run(F&& f) {
  budget = alloc_budget::Budget{true, 0, 0, 0, largest_allowed, 2u << 20, 5000};
  int result = kRefused;
  try {
    result = static_cast<int>(f());
  } catch (const std::out_of_range&) {
    result = kOutOfRange;
  } catch (const std::length_error&) {
    result = kLengthError;
  } catch (const std::bad_alloc&) {
  }
  budget.armed = false;
  return result;
}

[[noreturn]] inline void fail(const char* what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();  // libFuzzer reports a crash and keeps the input
}

inline void check(bool ok, const char* what) {
  if (!ok) fail(what);
}

// Layout: [flags][k][k little-endian 16-bit cut offsets][stream]. The stream
// is delivered in chunks ending at those offsets (modulo the stream length,
// sorted, empty chunks skipped) and at its end.
struct SplitInput {
  std::uint8_t flags = 0;
  std::string stream;
  std::vector<std::size_t> ends;
  int fds[2] = {-1, -1};  // fds[0] for the library, chunks go into fds[1]

  SplitInput(const std::uint8_t* data, std::size_t size) {
    const std::size_t k = size < 2 ? 0 : data[1] & 15;
    if (size < 3 + 2 * k) return;  // no stream, no chunks
    flags = data[0];
    stream.assign(reinterpret_cast<const char*>(data + 2 + 2 * k), size - 2 - 2 * k);
    std::set<std::size_t> cuts{stream.size()};
    for (std::size_t i = 0; i < k; ++i)
      cuts.insert((data[2 + 2 * i] | data[3 + 2 * i] << 8) % stream.size());
    cuts.erase(0);
    ends.assign(cuts.begin(), cuts.end());
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) fail("socketpair");
  }

  // Writes chunk i and returns it.
  std::string send(std::size_t i) const {
    const std::size_t begin = i == 0 ? 0 : ends[i - 1];
    std::string chunk = stream.substr(begin, ends[i] - begin);
    if (write(fds[1], chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size()))
      fail("short write to the socket pair");
    return chunk;
  }
};

// The library's diagnostics go to standard output; a fuzz run would print
// them millions of times.
struct NullBuffer : std::streambuf {
  int overflow(int c) override { return traits_type::not_eof(c); }
};
inline NullBuffer null_buffer;

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::cout.rdbuf(&fuzz::null_buffer);
  return 0;
}
