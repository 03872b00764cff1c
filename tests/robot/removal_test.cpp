// The removal pass against a literal transcription of the queue walk it
// replaces: start at the first message; step over pending ones; erase a handled
// one, then restart at the second position; stop past the end.

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "robot/removal.h"

namespace {

void ReferenceWalk(std::vector<Message_RTS>& queue) {
  std::size_t pos = 0;
  while (pos < queue.size()) {
    if (queue[pos].key != KEY_NONE) {
      ++pos;
      continue;
    }
    queue.erase(queue.begin() + static_cast<std::ptrdiff_t>(pos));
    if (queue.empty()) break;
    pos = 1;
  }
}

// Messages tagged by position (int_param) so that identity and order show.
std::vector<Message_RTS> Queue(const std::vector<int>& keys) {
  std::vector<Message_RTS> queue;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    Message_RTS m;
    m.key = static_cast<RTS_key>(keys[i]);
    m.int_param = static_cast<std::int32_t>(i);
    m.text_param1 = "m" + std::to_string(i);
    queue.push_back(m);
  }
  return queue;
}

std::vector<std::pair<int, int>> Summary(const std::vector<Message_RTS>& queue) {
  std::vector<std::pair<int, int>> out;
  for (const auto& m : queue) {
    EXPECT_EQ(m.text_param1, "m" + std::to_string(m.int_param));  // moved intact
    out.emplace_back(m.key, m.int_param);
  }
  return out;
}

}  // namespace

TEST(RemovalPass, LeavesTheMessageBehindAHandledFirstOne) {
  auto three_done = Queue({0, 0, 0});
  remove_done(three_done);
  EXPECT_EQ(Summary(three_done), (std::vector<std::pair<int, int>>{{0, 1}}));
  remove_done(three_done);
  EXPECT_TRUE(three_done.empty());

  auto pending_first = Queue({3, 0, 20, 0, 0, 12, 0});
  remove_done(pending_first);
  EXPECT_EQ(Summary(pending_first), (std::vector<std::pair<int, int>>{{3, 0}, {20, 2}, {12, 5}}));
}

TEST(RemovalPass, MatchesTheWalkOnRandomQueues) {
  std::mt19937 rng(6868);
  for (int round = 0; round < 3000; ++round) {
    const std::size_t size = rng() % 14;
    std::vector<int> keys;
    for (std::size_t i = 0; i < size; ++i) keys.push_back(rng() % 3 == 0 ? 0 : 1 + rng() % 20);
    auto fast = Queue(keys);
    auto slow = Queue(keys);
    remove_done(fast);
    ReferenceWalk(slow);
    ASSERT_EQ(Summary(fast), Summary(slow)) << "round " << round;
  }
}
