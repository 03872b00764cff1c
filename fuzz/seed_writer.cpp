// Writes the seed corpora of the fuzz targets: the byte vectors of the test
// suites, server traffic a robot meets and the damaged frames the receiver
// must survive. The bytes are built by hand (the tests' wire writer), not by
// the library's encoder, so that a codec fault cannot shape its own seeds.
//
// Usage: tarn-fuzz-seeds <directory>; writes <directory>/{message,stream}/.

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "../tests/support/wire.h"

using wire::body;
using wire::frame;

// Type 1, one way-point (code 3 at 1, 2, 5, flag 1), one arc way-point, the
// target "3" and the param "f"; `l1` is the target's length word.
static std::string action(std::int32_t l1 = 1) {
  wire::Bytes b;
  b.i32(1).i32(1).i32(3).f32(1).f32(2).f32(5).i32(1).i32(0);
  b.i32(1).i32(9).f32(1).f32(1).f32(0).i32(-1).i32(0).f32(0.1f).f32(0.2f).f32(0.3f).f32(0.4f);
  return b.i32(l1).raw("3").f32(1).f32(2).i32(0).text("f").s;
}

// Split-stream input: flags, the cut offsets, then the stream.
static std::string split(int flags, const std::string& stream, const std::string& cuts = "") {
  return std::string{static_cast<char>(flags), static_cast<char>(cuts.size() / 2)} + cuts + stream;
}

int main(int argc, char** argv) {
  if (argc != 2) return std::fprintf(stderr, "usage: %s <directory>\n", argv[0]), 2;
  const std::string root = argv[1];
  mkdir(root.c_str(), 0755);
  for (const char* d : {"message", "stream"}) mkdir((root + "/" + d).c_str(), 0755);

  const std::string set_param = body("T-0", "SV-0", 20, "Speed", "N", "N", 800);  // 52 bytes
  const std::string move = body("T-0", "R-0", 12, "N", "N", "N", 1, 2, action() + action());
  const std::string odd = body("SV-0", "T-0", 5, std::string("a#b;c\0d", 7), "", "%", -1);
  const std::string detail = body("R-0", "T-0", 14, "24.5 1.25 -3.5 -1 0.75 800 400", "R-0");
  const std::string path_one = body("R-0", "T-0", 12, "path", "N", "N", 1);
  const std::string done = body("R-0", "T-0", 12, "action");
  const std::string reports = frame(body("SV-0", "T-0", 2)) + frame(detail) + frame(path_one) +
                              frame(body("R-0", "T-0", 14, "12 1 2 3", "R-9")) + frame(done) +
                              frame(body("SV-0", "T-0", 3));
  // Texts longer than what follows them: a message text (refused unallocated
  // when received) and an action text (allocated, and the message filed).
  const std::string long_sender = wire::header(8) + wire::hex("00000000 e8030000 3b");
  const std::string long_target = frame(body("R-0", "T-0", 12, "N", "N", "N", 0, 1, action(5000)));

  // Stream seeds serve the receiver and the robot; the flags byte sets up the
  // robot (running actions, online, queued commands, closing peer).
  const std::vector<std::pair<std::string, std::string>> files = {
      {"message/default", body("N", "N", 0)},
      {"message/set_param", set_param},
      {"message/move", move},
      {"message/odd_texts", odd},
      {"message/negative_count", body("T-0", "R-0", 12, "N", "N", "N", 0, -3)},
      {"message/cut_after_marker", set_param.substr(0, set_param.size() - 5)},
      {"stream/reports", split(1 | 8, reports, wire::hex("0700 6400 6500 fa00"))},
      {"stream/connects",
       split(64 | 128, frame(body("R-0", "T-0", 1)) + frame(body("T-0", "SV-0", 1)))},
      {"stream/garbage", split(0, "xyz" + frame(move) + "#zz;" + frame(odd) + wire::header(999991) +
                                      "abc;" + frame(detail).substr(0, 40) + frame(detail))},
      {"stream/wrong_type", split(32, frame(set_param, 12) + frame(set_param))},
      {"stream/huge_text", split(0, wire::header(8) + wire::hex("00000000 ffffff7f 3b"))},
      {"stream/long_texts", split(0, long_sender + long_target, wire::hex("0900"))},
      {"stream/progress",
       split(3 | 4 | 8,
             frame(path_one) + frame(body("R-0", "T-0", 12, "path", "N", "N", -1)) + frame(done))},
  };
  for (const auto& f : files) {
    if (!(std::ofstream(root + "/" + f.first, std::ios::binary) << f.second)) {
      std::fprintf(stderr, "cannot write %s/%s\n", root.c_str(), f.first.c_str());
      return 1;
    }
  }
  return 0;
}
