// Message_RTS::decode from a string, checked against the stream overload and
// against its own encoder.
//
// - The string overload (which decodes straight from the bytes) and the
//   string-stream overload give the same result, the same fields and the same
//   exception, whatever the input.
// - A message that decoded with its input to spare re-encodes to exactly as
//   many bytes as it consumed.
// - Encoding is a fixed point after one decode: str() of the decoded message
//   decodes back, in full and successfully, to a message with the same
//   fields, whose own str() is the same bytes.
// - The only exception that may leave the decoder is the contractual one: the
//   length error of a negative text length (allocation failures cannot occur
//   within the budget).

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>

#include "fuzz_common.h"
#include "msg/codec.h"
#include "msg/msg.h"

namespace {

enum class Outcome { kFalse, kTrue, kLengthError };

Outcome run(Message_RTS& message, bool (*decode)(Message_RTS&, const std::string&),
            const std::string& input) {
  try {
    return decode(message, input) ? Outcome::kTrue : Outcome::kFalse;
  } catch (const std::length_error&) {
    return Outcome::kLengthError;
  }
}

bool from_string(Message_RTS& message, const std::string& input) {
  return message.decode(input);
}

bool from_stream(Message_RTS& message, const std::string& input) {
  std::stringstream stream(input, std::ios::in | std::ios::out | std::ios::binary);
  return message.decode(stream);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (!fuzz::message_within_budget(data, size)) return -1;
  const std::string input(reinterpret_cast<const char*>(data), size);

  Message_RTS by_string;
  Message_RTS by_stream;
  const Outcome a = run(by_string, from_string, input);
  const Outcome b = run(by_stream, from_stream, input);
  fuzz::check(a == b, "string and stream decoders disagree on the result");
  fuzz::check(fuzz::fingerprint(by_string) == fuzz::fingerprint(by_stream),
              "string and stream decoders disagree on the fields");
  if (a != Outcome::kTrue) return 0;

  // With the input not exhausted, every field was read whole.
  std::stringstream probe(input, std::ios::in | std::ios::out | std::ios::binary);
  Message_RTS probed;
  probed.decode(probe);
  const std::string encoded = by_string.str();
  fuzz::check(encoded.size() == encoded_size(by_string), "encoded_size differs from str()");
  if (!probe.fail()) {
    fuzz::check(static_cast<std::streamoff>(encoded.size()) == probe.tellg(),
                "re-encoding does not have the size of what was consumed");
  }

  Message_RTS again;
  std::size_t consumed = 0;
  fuzz::check(decode_message(again, encoded.data(), encoded.size(), &consumed),
              "an encoded message does not decode");
  fuzz::check(consumed == encoded.size(), "an encoded message is not consumed exactly");
  fuzz::check(fuzz::fingerprint(again) == fuzz::fingerprint(by_string),
              "an encoded message decodes to different fields");
  fuzz::check(again.str() == encoded, "encoding is not a fixed point");
  return 0;
}
