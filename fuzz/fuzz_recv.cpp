// The receive path: recv_msg over a connected socket pair, the byte stream
// written in fuzzer-chosen chunks, each chunk followed by recv_msg calls until
// one files nothing.
//
// Checked on every call:
// - the result code, the reassembly buffer and the mailbox equal those of a
//   reference receiver written the simple way (a string stream over a copy of
//   the whole buffer, Message_RTS::decode on it), including the exceptions it
//   throws (std::out_of_range for a length word of -10, std::length_error for
//   a negative text length);
// - m_buffer never holds more bytes than have arrived;
// - a call files at most one message.

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "fuzz_common.h"
#include "msg/msg.h"
#include "net/Socket.h"

namespace {

// The receiver as plainly as it can be written, from the byte stream's rules.
int reference_file(std::string& buffer, MailBox& box, int received) {
  const std::size_t start = buffer.find('#');
  if (start == std::string::npos) return 0;
  buffer.erase(0, start);
  std::stringstream in(buffer, std::ios::in | std::ios::out | std::ios::binary);
  char marker = 0;
  std::int32_t type = 0;
  std::int32_t length = 0;
  in.read(&marker, 1);
  in.read(reinterpret_cast<char*>(&type), 4);
  in.read(reinterpret_cast<char*>(&length), 4);
  if (static_cast<std::uint32_t>(length) + 10u > 1000000u) {
    const std::size_t end = buffer.find(';');
    if (end != std::string::npos) buffer.erase(0, end + 1);
    return 0;
  }
  const auto frame = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(length + 10));
  if (frame > buffer.size()) return 0;
  if (buffer.at(frame - 1) != ';') {
    const std::size_t end = buffer.find(';');
    if (end != std::string::npos) buffer.erase(0, end + 1);
    return 0;
  }
  if (type != 11) return 0;
  Message_RTS message;
  if (!message.decode(in)) return 0;
  box.inbox[message.sender_id].push_back(message);
  buffer.erase(0, frame);
  if (message.key == KEY_CONNECT) {
    if (message.sender_id == "T-0") return -11;
    if (message.sender_id == "R-0") return -10;
  }
  return received;
}

enum Thrown { kNone, kOutOfRange, kLengthError };

template <class F>
Thrown guarded(F&& f, int& result) {
  try {
    result = f();
    return kNone;
  } catch (const std::out_of_range&) {
    return kOutOfRange;
  } catch (const std::length_error&) {
    return kLengthError;
  }
}

std::size_t inbox_size(const MailBox& box) {
  std::size_t n = 0;
  for (const auto& entry : box.inbox) n += entry.second.size();
  return n;
}

fuzz::NullBuffer null_buffer;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::cout.rdbuf(&null_buffer);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::SplitInput input;
  if (!fuzz::parse_split(data, size, input)) return -1;
  if (!fuzz::stream_within_budget(input)) return -1;

  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) fuzz::fail("socketpair");
  Socket socket;
  socket.Get(fds[0]);
  MailBox box;

  std::string reference_buffer;
  MailBox reference_box;
  std::size_t arrived = 0;
  std::size_t begin = 0;
  for (std::size_t end : input.ends) {
    const std::string chunk = input.stream.substr(begin, end - begin);
    begin = end;
    if (write(fds[1], chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size())) {
      fuzz::fail("short write to the socket pair");
    }
    arrived += chunk.size();
    bool fresh = true;
    for (int call = 0; call < 256; ++call) {
      const std::size_t filed_before = inbox_size(box);
      int got = 0;
      const Thrown thrown = guarded([&] { return recv_msg(socket, box); }, got);
      int expected = 0;
      if (fresh) reference_buffer += chunk;
      const int received = fresh ? static_cast<int>(chunk.size()) : -1;
      fresh = false;
      const Thrown reference_thrown = guarded(
          [&] { return reference_file(reference_buffer, reference_box, received); }, expected);
      fuzz::check(thrown == reference_thrown, "recv_msg throws differently from the reference");
      fuzz::check(socket.m_buffer == reference_buffer, "buffers differ from the reference");
      fuzz::check(socket.m_buffer.size() <= arrived, "the buffer holds more than has arrived");
      fuzz::check(inbox_size(box) <= filed_before + 1, "one call filed more than one message");
      if (thrown != kNone) break;  // the same front bytes would throw again
      fuzz::check(got == expected, "recv_msg result differs from the reference");
      fuzz::check(fuzz::fingerprint(box) == fuzz::fingerprint(reference_box),
                  "filed messages differ from the reference");
      if (got == 0) break;
    }
  }
  close(fds[1]);
  int last = 0;
  guarded([&] { return recv_msg(socket, box); }, last);
  fuzz::check(last == -2, "a closed peer is not reported as -2");
  return 0;
}
