#pragma once

// Shared pieces of the fuzz targets: the work budget that keeps the decoders'
// unguarded lengths and counts from reading as out-of-memory crashes, the
// split-stream input layout, and a field-by-field fingerprint of records.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <streambuf>
#include <string>
#include <vector>

#include "msg/msg.h"

namespace fuzz {

// ----------------------------------------------------------------- budget
//
// The decoders trust their input: a text length of 2^31 - 1 allocates 2 GiB,
// and a count of 2^31 - 1 appends that many blank actions or way-points even
// when no data follow. Those are designed outcomes, not faults, so inputs that
// ask for more than the budget below are not run at all (the target returns
// -1, which also keeps them out of the corpus). Walk mirrors the decoders'
// consumption of a byte range exactly: 4-byte reads that replace only the
// bytes that arrive, one message length variable reused by all five texts,
// zeroed temporaries for counts and action lengths, and a source that reads
// nothing more once a read came up short.

constexpr std::int64_t kMaxText = 64 << 10;        // bytes of any one text
constexpr std::int64_t kMaxTextTotal = 256 << 10;  // bytes of all texts of one decode
constexpr std::int64_t kMaxItems = 2000;           // actions plus way-points of one decode

class Walk {
 public:
  Walk(const std::uint8_t* data, std::size_t size) : p_(data), n_(size) {}

  // False when the input asks for more than the budget allows.
  bool message() {
    std::uint32_t word = 0;
    read4(word);  // head_word
    std::uint32_t length = 0;
    for (int i = 0; i < 5; ++i) {
      read4(length);
      if (!text(length)) return budget_ok_;
      if (i == 1) read4(word);  // key, between the node ids and the texts
    }
    read4(word);  // int_param
    char marker = 0;
    read(&marker, 1);
    if (marker != '%') return budget_ok_;
    std::uint32_t count = 0;
    read4(count);
    const auto n = static_cast<std::int32_t>(count);
    for (std::int32_t i = 0; i < n; ++i) {
      if (!item(1) || !action()) return budget_ok_;
    }
    return budget_ok_;
  }

  // False when the input asks for more than the budget allows. Stops early
  // (true) where the decoder would throw.
  bool action() {
    std::uint32_t word = 0;
    read4(word);  // type
    for (std::size_t record : {std::size_t{24}, std::size_t{40}}) {
      std::uint32_t count = 0;
      read4(count);
      const auto n = static_cast<std::int32_t>(count);
      if (n > 0) {
        if (!item(n)) return false;
        skip(record * static_cast<std::size_t>(n));
      }
    }
    std::uint32_t length = 0;
    read4(length);
    if (!text(length)) return false;
    skip(12);  // target x, y, space_type
    length = 0;
    read4(length);
    return text(length);
  }

  bool threw() const { return threw_; }

 private:
  void read(void* dst, std::size_t k) {
    if (failed_) return;
    const std::size_t got = std::min(k, n_ - pos_);
    std::memcpy(dst, p_ + pos_, got);
    pos_ += got;
    if (got < k) failed_ = true;
  }
  void read4(std::uint32_t& v) { read(&v, 4); }
  void skip(std::size_t k) {
    if (failed_) return;
    const std::size_t got = std::min(k, n_ - pos_);
    pos_ += got;
    if (got < k) failed_ = true;
  }
  // A negative length throws std::length_error: the walk ends there, within
  // budget. False also when the budget is exceeded.
  bool text(std::uint32_t raw) {
    const auto length = static_cast<std::int32_t>(raw);
    if (length < 0) {
      threw_ = true;
      return false;
    }
    text_total_ += length;
    if (length > kMaxText || text_total_ > kMaxTextTotal) {
      budget_ok_ = false;
      return false;
    }
    skip(static_cast<std::size_t>(length));
    return true;
  }
  bool item(std::int64_t n) {
    items_ += n;
    if (items_ > kMaxItems) budget_ok_ = false;
    return budget_ok_;
  }

  const std::uint8_t* p_;
  std::size_t n_;
  std::size_t pos_ = 0;
  bool failed_ = false;
  bool threw_ = false;
  bool budget_ok_ = true;
  std::int64_t text_total_ = 0;
  std::int64_t items_ = 0;
};

inline bool message_within_budget(const std::uint8_t* data, std::size_t size) {
  return Walk(data, size).message();
}

inline bool action_within_budget(const std::uint8_t* data, std::size_t size) {
  Walk walk(data, size);
  return walk.action() || walk.threw();
}

// ------------------------------------------------------- split-stream input
//
// Layout: [flags][k][k little-endian 16-bit cut offsets][stream]. The stream
// is delivered in k + 1 chunks cut at those offsets (taken modulo the stream
// length, sorted, duplicates giving empty chunks that are skipped).

struct SplitInput {
  std::uint8_t flags = 0;
  std::string stream;
  std::vector<std::size_t> ends;  // exclusive end of each non-empty chunk
};

inline bool parse_split(const std::uint8_t* data, std::size_t size, SplitInput& out) {
  if (size < 2) return false;
  out.flags = data[0];
  const std::size_t k = data[1] & 15;
  if (size < 2 + 2 * k) return false;
  const std::uint8_t* cuts = data + 2;
  out.stream.assign(reinterpret_cast<const char*>(data + 2 + 2 * k), size - 2 - 2 * k);
  if (out.stream.empty()) return false;
  std::vector<std::size_t> points;
  for (std::size_t i = 0; i < k; ++i) {
    points.push_back((cuts[2 * i] | (cuts[2 * i + 1] << 8)) % out.stream.size());
  }
  points.push_back(out.stream.size());
  std::sort(points.begin(), points.end());
  points.erase(std::unique(points.begin(), points.end()), points.end());
  if (points.front() == 0) points.erase(points.begin());
  out.ends = points;
  return true;
}

// A frame that the receiver decodes starts at some '#' of the stream, and its
// body is decoded from everything that has arrived behind its header: the
// stream up to the end of some chunk. Every such (start, end) pair must stay
// within the budget.
inline bool stream_within_budget(const SplitInput& in) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(in.stream.data());
  for (std::size_t p = 0; p < in.stream.size(); ++p) {
    if (in.stream[p] != '#') continue;
    for (std::size_t end : in.ends) {
      if (end < p + 10) continue;
      if (!message_within_budget(bytes + p + 9, end - p - 9)) return false;
    }
  }
  return true;
}

// ---------------------------------------------------------- fingerprints
//
// Every field of a record, in a form where equal fingerprints mean equal
// records (the comparison operators of the records look at labels only).

inline void put(std::string& out, const void* p, std::size_t n) {
  out.append(static_cast<const char*>(p), n);
}
inline void put_text(std::string& out, const std::string& s) {
  const std::uint64_t n = s.size();
  put(out, &n, sizeof n);
  out += s;
}
inline void put_point(std::string& out, const QrInfo_RTS& q) {
  put_text(out, q.qr_code);
  put(out, &q.x, 4);
  put(out, &q.y, 4);
  put(out, &q.z, 4);
  put(out, &q.space_type, 4);
  put(out, &q.flag, 4);
}

inline std::string fingerprint(const Action_RTS& a) {
  std::string out;
  put(out, &a.type, 4);
  const std::uint64_t n = a.path.size(), m = a.arc_path.size();
  put(out, &n, 8);
  for (const auto& q : a.path) put_point(out, q);
  put(out, &m, 8);
  for (const auto& q : a.arc_path) {
    put_point(out, q);
    put(out, &q.arc_param1, 4);
    put(out, &q.arc_param2, 4);
    put(out, &q.arc_param3, 4);
    put(out, &q.arc_param4, 4);
  }
  put_point(out, a.target);
  put_text(out, a.param);
  return out;
}

inline std::string fingerprint(const Message_RTS& msg) {
  std::string out;
  put(out, &msg.head_word, 4);
  put_text(out, msg.sender_id);
  put_text(out, msg.receiver_id);
  put(out, &msg.key, 4);
  put(out, &msg.int_param, 4);
  put_text(out, msg.text_param1);
  put_text(out, msg.text_param2);
  put_text(out, msg.text_param3);
  const std::uint64_t n = msg.actions.size();
  put(out, &n, 8);
  for (const auto& a : msg.actions) put_text(out, fingerprint(a));
  put(out, &msg.local_flag, 4);
  return out;
}

// Sorted by sender, so that two mailboxes compare independently of their
// hash order.
inline std::string fingerprint(const MailBox& box) {
  std::vector<std::string> entries;
  for (const auto& entry : box.inbox) {
    std::string e;
    put_text(e, entry.first);
    for (const auto& msg : entry.second) put_text(e, fingerprint(msg));
    entries.push_back(e);
  }
  std::sort(entries.begin(), entries.end());
  std::string out;
  for (const auto& e : entries) out += e;
  return out;
}

// --------------------------------------------------------------- helpers

// Aborts with a message: libFuzzer reports it as a crash and keeps the input.
[[noreturn]] inline void fail(const char* what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

inline void check(bool ok, const char* what) {
  if (!ok) fail(what);
}

// The library's diagnostics go to standard output; a fuzz run would print
// them millions of times.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

}  // namespace fuzz
