#pragma once

// Queue maintenance of the service step, kept apart so that it can be tested
// through the static archive. Not part of the installed interface.

#include <vector>

#include "msg/msg.h"

// Erases handled messages (key KEY_NONE) from a queue, keeping the order of the
// others. The outcome is that of the queue's historical walk, which restarts
// at the second position after every erasure and so never re-examines the
// message that has just become first:
//   - first message pending: every handled message after it is erased;
//   - first message handled: it is erased, the message that then becomes first
//     is kept whatever its key, and every handled message after that is erased.
// At most one handled message therefore survives a pass, and always at the
// front; the next pass removes it. Linear time, one stable compaction.
void remove_done(std::vector<Message_RTS>& queue);
