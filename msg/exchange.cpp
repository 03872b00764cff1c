// Framed exchange: send_msg wraps an encoded message in a frame, recv_msg
// reassembles frames from the byte stream and files their messages.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>
#include <utility>

#include "msg/codec.h"
#include "msg/frame.h"
#include "msg/msg.h"
#include "msg/node_ids.h"
#include "net/Socket.h"

namespace {

// The wire word at `at`, with the bytes that are not buffered yet reading as
// zero. For a frame that is still arriving the length word therefore never
// exceeds the real one, and the frame is seen as incomplete, not oversized.
std::uint32_t word_at(const std::string& buffer, std::size_t at) {
  std::uint32_t value = 0;
  if (at < buffer.size())
    std::memcpy(&value, buffer.data() + at, std::min<std::size_t>(4, buffer.size() - at));
  return value;
}

// Drops everything up to and including the first ';'. False, with the buffer
// untouched, when there is none.
bool drop_through_ender(std::string& buffer) {
  const std::size_t end = buffer.find(ender);
  if (end == std::string::npos) return false;
  buffer.erase(0, end + 1);
  return true;
}

}  // namespace

bool send_msg(Socket& socket, Message_RTS& message) {
  // One send per frame, so frames never interleave on the connection.
  return socket.Send(make_frame(message.str()));
}

int file_frame(std::string& buffer, MailBox& box, int received) {
  // Bytes in front of the first marker are noise; without a marker they are
  // kept until one arrives.
  const std::size_t start = buffer.find(header);
  if (start == std::string::npos) return 0;
  if (start > 0) buffer.erase(0, start);

  const std::uint32_t raw_length = word_at(buffer, 5);
  const auto length = static_cast<std::int32_t>(raw_length);

  // Computed in 32 bits and compared unsigned, so a length below -10 wraps
  // and counts as oversized too.
  if (raw_length + 10u > frame_max_size) {
    drop_through_ender(buffer);
    return 0;
  }

  // From here length lies in [-10, 999990].
  if (static_cast<std::size_t>(length + 10) > buffer.size()) return 0;

  // Bounds-checked on purpose: a length of -10 points at index -1, which
  // widens to the largest size and throws std::out_of_range.
  if (buffer.at(static_cast<std::size_t>(length + 9)) != ender) {
    // The search starts at the frame's own marker and may stop at a 0x3B
    // inside its header; only those bytes are dropped then, and the rest is
    // searched for a marker by the next call.
    if (drop_through_ender(buffer)) {
      std::cout << "\t socket "
                << " alinement protection " << std::endl;
    }
    return 0;
  }

  // A frame of another type, or a body that does not decode, stays at the
  // front: no path skips it, so the connection delivers nothing after it.
  if (static_cast<std::int32_t>(word_at(buffer, 1)) != frame_type) return 0;

  // The decoder gets everything behind the header, not just this body: a
  // malformed body whose lengths point past its terminator reads on into the
  // following bytes, exactly as it would from a stream of the whole buffer.
  Message_RTS message;
  if (!decode_received(message, buffer.data() + frame_header_size,
                       buffer.size() - frame_header_size)) {
    return 0;
  }

  int result = received;
  if (message.key == KEY_CONNECT) {
    if (message.sender_id == rts_id) {
      result = -11;
    } else if (message.sender_id == robot_id) {
      result = -10;
    }
  }
  box.inbox[message.sender_id].push_back(std::move(message));

  // The whole frame goes, however many bytes the decoder actually read.
  buffer.erase(0, static_cast<std::size_t>(length + 10));
  return result;
}

int recv_msg(Socket& socket, MailBox& box) {
  std::string received;
  const int count = socket.Recv(received);
  if (count == 0) return -2;
  if (count > 0) socket.m_buffer.append(received);
  return file_frame(socket.m_buffer, box, count);
}
