// recv_msg over a socket pair, the stream written in fuzzer-chosen chunks,
// each chunk followed by calls until one files nothing. Checked on every call:
// - result, reassembly buffer, mailbox and exceptions equal those of a
//   reference receiver without the allocation bound (the direct stream
//   decoder over a copy of the whole buffer), whenever the reference fits
//   the budget;
// - the bound: a frame whose message text is longer than the bytes behind
//   it costs no allocation above twice what has arrived (plus slack).

#include <algorithm>
#include <cstring>
#include <sstream>

#include "fuzz_common.h"
#include "net/Socket.h"

namespace {

// The receiver as plainly as it can be written, with the direct decoder.
int reference_file(std::string& buffer, MailBox& box, int received) {
  auto drop_through_ender = [&] {
    const std::size_t end = buffer.find(';');
    if (end != std::string::npos) buffer.erase(0, end + 1);
  };
  const std::size_t start = buffer.find('#');
  if (start == std::string::npos) return 0;
  buffer.erase(0, start);
  std::stringstream in(buffer);
  std::int32_t type = 0, length = 0;
  in.ignore(1).read(reinterpret_cast<char*>(&type), 4).read(reinterpret_cast<char*>(&length), 4);
  if (static_cast<std::uint32_t>(length) + 10u > 1000000u) return drop_through_ender(), 0;
  const auto frame = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(length + 10));
  if (frame > buffer.size()) return 0;
  if (buffer.at(frame - 1) != ';') return drop_through_ender(), 0;
  Message_RTS message;
  if (type != 11 || !message.decode(in)) return 0;
  box.inbox[message.sender_id].push_back(message);
  buffer.erase(0, frame);
  if (message.key != KEY_CONNECT) return received;
  return message.sender_id == "T-0" ? -11 : message.sender_id == "R-0" ? -10 : received;
}

// Whether a message text of the frame at the front of `buffer` asks for more
// bytes than follow it. One length word serves all five texts, so a word cut
// short keeps the high bytes of the one before.
bool text_overruns(const std::string& b) {
  std::size_t at = b.find('#');
  if (at == std::string::npos) return false;
  at += 13;  // past the header and the head word
  std::int32_t length = 0;
  for (int i = 0; i < 5; ++i, at += static_cast<std::size_t>(length)) {
    at += i == 2 ? 8 : 4;  // the key stands before the third text
    const std::size_t word = at - 4;
    if (word < b.size()) std::memcpy(&length, &b[word], std::min<std::size_t>(4, b.size() - word));
    if (length < 0) return false;
    if (length > 0 && at + static_cast<std::size_t>(length) > b.size()) return true;
  }
  return false;
}

// The message a call filed, if any, taken out of the mailbox.
std::string take(MailBox& box) {
  std::string out;
  for (auto& entry : box.inbox)
    for (Message_RTS& m : entry.second) out += entry.first + "|" + m.str() + "|";
  box.inbox.clear();
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::SplitInput input(data, size);
  if (input.ends.empty()) return -1;
  Socket socket;
  socket.Get(input.fds[0]);
  MailBox box, reference_box;
  std::string reference_buffer;
  std::size_t arrived = 0;
  bool comparable = true;
  for (std::size_t i = 0; comparable && i < input.ends.size(); ++i) {
    const std::string chunk = input.send(i);
    arrived += chunk.size();
    reference_buffer += chunk;
    for (int call = 0; call < 64; ++call) {
      const bool overrun = text_overruns(reference_buffer);
      const int got = fuzz::run([&] { return recv_msg(socket, box); });
      fuzz::check(!overrun || (got != fuzz::kRefused && fuzz::budget.largest <= 2 * arrived + 4096),
                  "a message text longer than the input was allocated");
      const int received = call == 0 ? static_cast<int>(chunk.size()) : -1;
      const int expected =
          fuzz::run([&] { return reference_file(reference_buffer, reference_box, received); });
      // Past a refused allocation the two no longer start from the same state.
      comparable = got != fuzz::kRefused && expected != fuzz::kRefused;
      if (!comparable) break;
      fuzz::check(got == expected, "recv_msg differs from the reference in result or exception");
      fuzz::check(socket.m_buffer == reference_buffer, "buffers differ from the reference");
      fuzz::check(take(box) == take(reference_box), "filed messages differ from the reference");
      if (got == 0 || got < -11) break;  // nothing filed, or an exception
    }
  }
  close(input.fds[1]);
  if (comparable) fuzz::check(recv_msg(socket, box) == -2, "a closed peer is not reported as -2");
  return 0;
}
