#pragma once

// Frame layout, the one frame writer and the receive-side frame cutter,
// internal to the library and its own tools.
//
// A frame is '#', the type word 11, the body length N (both wire words, see
// msg/codec.h), the N body bytes and ';'. Frames follow one another with
// nothing in between; the body may hold any byte, '#' and ';' included.

#include <cstddef>
#include <cstdint>
#include <string>

#include "msg/codec.h"
#include "msg/msg.h"

// The complete frame around `body`: what send_msg writes for a message whose
// encoding is `body`. The length word is the size cut to 32 bits, and exactly
// as many body bytes follow as it announces (none if it reads negative), so a
// body too long to describe still yields a frame that agrees with its header.
inline std::string make_frame(const std::string& body) {
  const auto length = static_cast<std::uint32_t>(body.size());
  const std::size_t written = static_cast<std::int32_t>(length) > 0 ? length : 0;
  std::string frame;
  frame.reserve(written + frame_header_size + 1);
  frame.push_back(header);
  put_word(frame, static_cast<std::uint32_t>(frame_type));
  put_word(frame, length);
  frame.append(body, 0, written);
  frame.push_back(ender);
  return frame;
}

// Everything recv_msg does after its receive, as a pure function of the
// reassembly buffer: cuts at most one frame from the front of `buffer` and
// files its message in box.inbox under the sender. `received` is the result
// of the receive that preceded this call (a byte count, or -1); it is
// returned when an ordinary message was filed. Returns 0 when nothing was
// filed, -11 / -10 for a KEY_CONNECT from "T-0" / "R-0". A length word of -10
// throws std::out_of_range.
int file_frame(std::string& buffer, MailBox& box, int received);
