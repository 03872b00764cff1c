// Writes the seed corpora of the fuzz targets: the byte vectors of the test
// suites (the 43-byte default message, the 52-byte parameter message, the
// 58-byte action), server traffic a robot meets (acknowledgements, status
// reports, progress reports) and the damaged frames the receiver must survive.
// The bytes are built by hand (the tests' wire writer), not by the library's
// encoder, so that a codec fault cannot shape its own seeds.
//
// Usage: tarn-fuzz-seeds <directory>; writes <directory>/{message,action,recv,robot}/.

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "../tests/support/wire.h"

namespace {

using wire::body;
using wire::Bytes;
using wire::frame;

// Type 1, one way-point (code 3 at 1, 2, 5, flag 1), target the same, "f".
std::string action58() {
  Bytes b;
  b.i32(1).i32(1);
  b.i32(3).f32(1).f32(2).f32(5).i32(1).i32(0);
  b.i32(0);
  b.text("3").f32(1).f32(2).i32(0);
  b.text("f");
  return b.s;
}

// Two path way-points, one arc way-point, a target with a text label.
std::string action_with_arc() {
  Bytes b;
  b.i32(1).i32(2);
  b.i32(0).f32(0.5f).f32(1).f32(0).i32(1).i32(0);
  b.i32(-12).f32(1.5f).f32(2).f32(0).i32(1).i32(7);
  b.i32(1).i32(9).f32(1).f32(1).f32(0).i32(-1).i32(0).f32(0.1f).f32(0.2f).f32(0.3f).f32(0.4f);
  b.text("dock").f32(3).f32(4).i32(2);
  b.text("");
  return b.s;
}

std::string action_empty() {
  Bytes b;
  b.i32(0).i32(0).i32(0).text("").f32(0).f32(0).i32(0).text("");
  return b.s;
}

// Split-stream input: flags, no cuts, then the stream.
std::string split(std::uint8_t flags, const std::string& stream,
                  const std::vector<std::uint16_t>& cuts = {}) {
  std::string out;
  out.push_back(static_cast<char>(flags));
  out.push_back(static_cast<char>(cuts.size()));
  for (std::uint16_t c : cuts) {
    out.push_back(static_cast<char>(c & 0xff));
    out.push_back(static_cast<char>(c >> 8));
  }
  return out + stream;
}

bool write_file(const std::string& path, const std::string& bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <directory>\n", argv[0]);
    return 2;
  }
  const std::string root = argv[1];
  mkdir(root.c_str(), 0755);
  for (const char* d : {"message", "action", "recv", "robot"})
    mkdir((root + "/" + d).c_str(), 0755);

  const std::string default_message = body("N", "N", 0);                          // 43 bytes
  const std::string set_param = body("T-0", "SV-0", 20, "Speed", "N", "N", 800);  // 52 bytes
  const std::string move = body("T-0", "R-0", 12, "N", "N", "N", 1, 1, action58());
  const std::string two_actions =
      body("T-0", "R-0", 12, "N", "N", "N", 2, 2, action_with_arc() + action_empty());
  const std::string odd_texts = body("SV-0", "T-0", 5, std::string("a#b;c\0d", 7), "", "%", -1);
  const std::string detail = body("R-0", "T-0", 14, "24.5 1.25 -3.5 -1 0.75 800 400", "R-0");
  const std::string detail_short = body("R-0", "T-0", 14, "12 1 2 3", "R-9");
  const std::string ack_init = body("SV-0", "T-0", 2);
  const std::string ack_kill = body("SV-0", "T-0", 3);
  const std::string path_one = body("R-0", "T-0", 12, "path", "N", "N", 1);
  const std::string path_all = body("R-0", "T-0", 12, "path", "N", "N", -1);
  const std::string action_done = body("R-0", "T-0", 12, "action");
  const std::string connect_robot = body("R-0", "T-0", 1);
  const std::string connect_self = body("T-0", "SV-0", 1);

  std::vector<std::pair<std::string, std::string>> files = {
      {"message/default", default_message},
      {"message/set_param", set_param},
      {"message/move", move},
      {"message/two_actions", two_actions},
      {"message/odd_texts", odd_texts},
      {"message/detail", detail},
      {"message/negative_count", body("T-0", "R-0", 12, "N", "N", "N", 0, -3)},
      {"message/cut_after_marker", set_param.substr(0, set_param.size() - 5)},
      {"action/action58", action58()},
      {"action/with_arc", action_with_arc()},
      {"action/empty", action_empty()},
      {"action/type_only", action58().substr(0, 4)},
  };

  const std::string reports = frame(ack_init) + frame(detail) + frame(path_one) +
                              frame(detail_short) + frame(action_done) + frame(ack_kill);
  files.push_back({"recv/one", split(0, frame(set_param))});
  files.push_back({"recv/stream", split(0, reports, {7, 100, 101, 250})});
  files.push_back({"recv/connects", split(0, frame(connect_robot) + frame(connect_self))});
  files.push_back({"recv/garbage", split(0, "xyz" + frame(move) + "#zz;" + frame(odd_texts))});
  files.push_back({"recv/empty_body", split(0, frame("") + frame(default_message))});
  files.push_back({"recv/wrong_type", split(0, frame(default_message, 12) + frame(set_param))});
  files.push_back({"recv/oversized",
                   split(0, frame(std::string(64, 'x')).substr(0, 5) +
                                std::string("\x40\x42\x0f\x00", 4) + "abc;" + frame(detail))});
  files.push_back({"recv/bad_terminator", split(0, frame(detail).substr(0, 40) + frame(detail))});

  files.push_back({"robot/reports", split(1 | 8, reports, {30})});
  files.push_back({"robot/path_all", split(2 | 8, frame(path_all) + frame(action_done))});
  files.push_back({"robot/detail_bytes", split(8 | 32, frame(detail), {1, 2, 3, 50})});
  files.push_back({"robot/close", split(1 | 64 | 128, frame(ack_init) + frame(detail))});
  files.push_back({"robot/two_actions",
                   split(3 | 4 | 8, frame(path_one) + frame(path_one) + frame(action_done))});

  for (const auto& f : files) {
    if (!write_file(root + "/" + f.first, f.second)) {
      std::fprintf(stderr, "cannot write %s/%s\n", root.c_str(), f.first.c_str());
      return 1;
    }
  }
  return 0;
}
