// Message_RTS::decode, and through it Action_RTS::decode, on any bytes:
// - the string overload (which reads a byte range) and the string-stream
//   overload agree on the result, every field and the length error;
// - a decoded message re-encodes to a fixed point: its encoding decodes in
//   full to the same fields and the same bytes.
// A decoded record re-encodes every field it can hold (way-point codes are
// decimal numbers, target z and flag keep the blank's values), so equal
// encodings mean equal records.

#include <sstream>

#include "fuzz_common.h"
#include "msg/codec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  Message_RTS by_string, by_stream;
  std::stringstream stream(input);
  const int a = fuzz::run([&] { return by_string.decode(input); });
  const int b = fuzz::run([&] { return by_stream.decode(stream); });
  if (a == fuzz::kRefused || b == fuzz::kRefused) return -1;
  fuzz::check(a == b, "the decoders disagree on the result");
  fuzz::check(by_string.str() == by_stream.str(), "the decoders disagree on the fields");
  if (a != 1) return 0;

  const std::string encoded = by_string.str();
  Message_RTS again;
  std::size_t consumed = 0;
  fuzz::check(decode_message(again, encoded.data(), encoded.size(), &consumed) &&
                  consumed == encoded.size(),
              "an encoded message does not decode in full");
  fuzz::check(again.str() == encoded, "an encoded message decodes to different fields");
  return 0;
}
