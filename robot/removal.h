#pragma once

// Queue maintenance of the service step, kept apart so that it can be tested
// through the static archive. Not part of the installed interface.

#include <vector>

#include "msg/msg.h"

// The removal pass of the service step: erases handled messages (key
// KEY_NONE) from a queue, keeping the order of the others, except that the
// message standing second when the first is handled survives unexamined:
//   - first message pending: every handled message after it is erased;
//   - first message handled: it is erased, the message that then becomes first
//     is kept whatever its key, and every handled message after that is erased.
// At most one handled message therefore survives a pass, and always at the
// front; the next pass removes it. Linear time, one stable compaction.
void remove_done(std::vector<Message_RTS>& queue);
