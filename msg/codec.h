#pragma once

// Internal entry points of the codec, shared by the stream overloads and by the
// receive path, which decodes straight out of the reassembly buffer instead of
// copying it into a stream. Not part of the installed interface.

#include <cstddef>

#include "msg/msg.h"

// Decodes one message from the bytes [data, data + size) into `message`, with
// exactly the outcome of Message_RTS::decode on a std::stringstream holding
// those bytes (same fields, same result, same exceptions). `*consumed`, when
// given, receives the number of bytes read.
bool decode_message(Message_RTS& message, const char* data, std::size_t size,
                    std::size_t* consumed = nullptr);
