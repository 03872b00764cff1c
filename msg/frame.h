#pragma once

// Frame layout and the receive-side frame cutter, internal to the library.
//
// A frame is '#', the type word 11, the body length N (both 32-bit
// little-endian), the N body bytes and ';'. Frames follow one another with
// nothing in between; the body may hold any byte, '#' and ';' included.

#include <cstddef>
#include <cstdint>
#include <string>

#include "msg/msg.h"

// Marker, type word and length word.
constexpr std::size_t frame_header_size = 9;
// Largest frame the receiver accepts, terminator included; anything longer is
// discarded as damage.
constexpr std::uint32_t frame_max_size = 1000000;

// The complete frame around `body`, built in one allocation.
std::string make_frame(const std::string& body);

// Everything recv_msg does after its receive, as a pure function of the
// reassembly buffer: cuts at most one frame from the front of `buffer` and
// files its message in box.inbox under the sender. `received` is the result
// of the receive that preceded this call (a byte count, or -1); it is
// returned when an ordinary message was filed. Returns 0 when nothing was
// filed, -11 / -10 for a KEY_CONNECT from "T-0" / "R-0". A length word of -10
// throws std::out_of_range.
int file_frame(std::string& buffer, MailBox& box, int received);
