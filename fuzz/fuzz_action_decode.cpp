// Action_RTS::decode from a string stream, checked against the byte-range
// decoder of the receive path and against the encoder.
//
// - Both decoders leave the same fields and throw the same exception.
// - decode returns true whatever it read.
// - A body read whole re-encodes to as many bytes as it consumed, and to the
//   very bytes when its counts are not negative (counts of 0 or less all
//   re-encode as 0); encoding is a fixed point after one decode.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>

#include "fuzz_common.h"
#include "msg/codec.h"
#include "msg/msg.h"

namespace {

Action_RTS blank() {
  return Action_RTS(0, QrInfo_RTS(), "f");
}

std::int32_t le32(const std::uint8_t* p) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(p[0]) | p[1] << 8 | p[2] << 16 |
                                   static_cast<std::uint32_t>(p[3]) << 24);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (!fuzz::action_within_budget(data, size)) return -1;
  const std::string input(reinterpret_cast<const char*>(data), size);

  Action_RTS by_stream = blank();
  std::stringstream stream(input, std::ios::in | std::ios::out | std::ios::binary);
  bool threw_stream = false;
  try {
    fuzz::check(by_stream.decode(stream), "Action_RTS::decode returned false");
  } catch (const std::length_error&) {
    threw_stream = true;
  }

  Action_RTS by_span = blank();
  bool threw_span = false;
  std::size_t consumed = 0;
  try {
    decode_action(by_span, input.data(), input.size(), &consumed);
  } catch (const std::length_error&) {
    threw_span = true;
  }
  fuzz::check(threw_stream == threw_span, "stream and byte decoders disagree on throwing");
  fuzz::check(fuzz::fingerprint(by_stream) == fuzz::fingerprint(by_span),
              "stream and byte decoders disagree on the fields");
  if (threw_stream) return 0;

  fuzz::check(by_stream.target.z == 0 && by_stream.target.flag == -1,
              "target z and flag are not carried and must keep the blank's values");

  const std::string encoded = by_stream.str();
  if (!stream.fail()) {
    fuzz::check(encoded.size() == consumed, "re-encoding does not have the consumed size");
    // Counts of 0 or less all mean "none" and re-encode as 0; otherwise the
    // body is canonical and comes back byte for byte.
    const std::int32_t n = le32(data + 4);
    const std::int32_t m = le32(data + 8 + 24 * static_cast<std::size_t>(n > 0 ? n : 0));
    if (n >= 0 && m >= 0) {
      fuzz::check(encoded == input.substr(0, consumed), "a canonical body does not re-encode");
    }
  }

  Action_RTS again = blank();
  std::size_t again_consumed = 0;
  decode_action(again, encoded.data(), encoded.size(), &again_consumed);
  fuzz::check(again_consumed == encoded.size(), "an encoded action is not consumed exactly");
  fuzz::check(fuzz::fingerprint(again) == fuzz::fingerprint(by_stream),
              "an encoded action decodes to different fields");
  fuzz::check(again.str() == encoded, "encoding is not a fixed point");
  return 0;
}
