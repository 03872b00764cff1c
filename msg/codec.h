#pragma once

// Internal entry points of the codec, shared by the stream overloads and by the
// receive path, which decodes straight out of the reassembly buffer instead of
// copying it into a stream. Not part of the installed interface.

#include <cstddef>
#include <cstdint>
#include <string>

#include "msg/msg.h"

// Decodes one message from the bytes [data, data + size) into `message`, with
// exactly the outcome of Message_RTS::decode on a std::stringstream holding
// those bytes (same fields, same result, same exceptions). `*consumed`, when
// given, receives the number of bytes read.
bool decode_message(Message_RTS& message, const char* data, std::size_t size,
                    std::size_t* consumed = nullptr);

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
