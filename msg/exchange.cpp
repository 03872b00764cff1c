// Framed exchange: send_msg wraps an encoded message in a frame, recv_msg
// reassembles frames from the byte stream and files their messages.

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>
#include <utility>

#include "msg/codec.h"
#include "msg/frame.h"
#include "msg/msg.h"
#include "msg/node_ids.h"
#include "net/Socket.h"

namespace {

// Wire integers are little-endian whatever the host's order; written and read
// byte by byte so that a big-endian port keeps the wire format.
void put_le32(std::string& out, std::uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>(value >> shift));
}

// The word at `at`, with the bytes that are not buffered yet reading as zero.
// For a frame that is still arriving the length word therefore never exceeds
// the real one, and the frame is seen as incomplete rather than oversized.
std::uint32_t get_le32(const std::string& buffer, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4 && at + i < buffer.size(); ++i) {
    value |= static_cast<std::uint32_t>(static_cast<unsigned char>(buffer[at + i])) << (8 * i);
  }
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

std::string make_frame(const std::string& body) {
  // The length word is the size cut to 32 bits, and exactly as many body
  // bytes as it announces follow (none if it reads negative), so a body too
  // long to describe still yields a frame that agrees with its own header.
  const std::uint32_t length = static_cast<std::uint32_t>(body.size());
  const std::size_t written = static_cast<std::int32_t>(length) > 0 ? length : 0;
  std::string frame;
  frame.reserve(written + frame_header_size + 1);
  frame.push_back(header);
  put_le32(frame, static_cast<std::uint32_t>(frame_type));
  put_le32(frame, length);
  frame.append(body, 0, written);
  frame.push_back(ender);
  return frame;
}

bool send_msg(Socket& socket, Message_RTS& message) {
  // One send per frame, so frames never interleave on the connection.
  const std::size_t size = encoded_size(message);
  // A body too long for the length word is cut to what the word announces.
  if (size > static_cast<std::size_t>(INT32_MAX)) return socket.Send(make_frame(message.str()));
  // The usual case encodes straight into the frame: one allocation, no copy
  // of the body.
  std::string frame;
  frame.reserve(size + frame_header_size + 1);
  frame.push_back(header);
  put_le32(frame, static_cast<std::uint32_t>(frame_type));
  put_le32(frame, static_cast<std::uint32_t>(size));
  append_message(frame, message);
  frame.push_back(ender);
  return socket.Send(std::move(frame));
}

int file_frame(std::string& buffer, MailBox& box, int received) {
  // Bytes in front of the first marker are noise; without a marker they are
  // kept until one arrives.
  const std::size_t start = buffer.find(header);
  if (start == std::string::npos) return 0;
  if (start > 0) buffer.erase(0, start);

  const std::uint32_t raw_length = get_le32(buffer, 5);
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
  if (static_cast<std::int32_t>(get_le32(buffer, 1)) != frame_type) return 0;

  // The decoder gets everything behind the header, not just this body: a
  // malformed body whose lengths point past its terminator reads on into the
  // following bytes, exactly as it would from a stream of the whole buffer.
  Message_RTS message;
  if (!decode_message(message, buffer.data() + frame_header_size,
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
