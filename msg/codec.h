#pragma once

// Internal entry points of the codec, shared by the stream overloads and by the
// receive path, which decodes straight out of the reassembly buffer instead of
// copying it into a stream. Not part of the installed interface.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "msg/msg.h"

// Byte order of the wire, for the codec and the frame alike: every number is
// copied as the raw bytes of its in-memory form. The decoders' handling of
// short input is defined on those bytes (a read that gets k of its 4 bytes
// replaces the first k bytes of the destination), and every host the library
// targets is little-endian, so the wire is little-endian by being host order.
// A big-endian build would silently speak another protocol; it is refused.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the wire is host order and must be little-endian");

// Appends the 4 wire bytes of `value`.
inline void put_word(std::string& out, std::uint32_t value) {
  char bytes[4];
  std::memcpy(bytes, &value, 4);
  out.append(bytes, 4);
}

// The value of the 4 wire bytes at `bytes`: the reverse of put_word.
inline std::uint32_t get_word(const char* bytes) {
  std::uint32_t value;
  std::memcpy(&value, bytes, 4);
  return value;
}

// Decodes one message from the bytes [data, data + size) into `message`, with
// exactly the outcome of Message_RTS::decode on a std::stringstream holding
// those bytes (same fields, same result, same exceptions). `*consumed`, when
// given, receives the number of bytes read.
bool decode_message(Message_RTS& message, const char* data, std::size_t size,
                    std::size_t* consumed = nullptr);

// The receive path's decode: the result and the exceptions of decode_message,
// but a message text whose length exceeds the bytes left fails at once,
// without allocating it. Such a text exhausts the input before the opening
// marker, so the decode returns false whatever the text's size; the record
// is then discarded, and its fields are not part of the outcome. A negative
// length still throws std::length_error.
bool decode_received(Message_RTS& message, const char* data, std::size_t size);

// The same for one action body: exactly what Action_RTS::decode does on a
// std::stringstream holding those bytes. Always returns true.
bool decode_action(Action_RTS& action, const char* data, std::size_t size,
                   std::size_t* consumed = nullptr);

// Number of bytes Message_RTS::str() produces for `message`.
std::size_t encoded_size(const Message_RTS& message);

// Appends the encoding of `message` to `out` (the bytes of Message_RTS::str()),
// so that a caller can build a frame around it without a second copy.
void append_message(std::string& out, const Message_RTS& message);

// The text-to-integer rule for way-point codes: what `std::istringstream(text)
// >> value` does to an int32 under the classic locale. Leading white space is
// skipped, then an optional sign and decimal digits are read up to the first
// other character; out-of-range numbers clamp to the nearest 32-bit limit; a
// text that does not start with a number gives 0; an empty or all-blank text
// leaves `value` untouched.
void extract_code(const char* text, std::size_t size, std::int32_t& value);
