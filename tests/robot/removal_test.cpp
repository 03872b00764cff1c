// The removal pass against a literal transcription of the queue walk it
// replaces: start at the first message; step over pending ones; erase a handled
// one, then restart at the second position; stop past the end.

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "robot/removal.h"

namespace {

void ReferenceWalk(std::vector<Message_RTS>& queue) {
  for (std::size_t pos = 0; pos < queue.size();) {
    if (queue[pos].key != KEY_NONE) {
      ++pos;
    } else {
      queue.erase(queue.begin() + static_cast<std::ptrdiff_t>(pos));
      pos = 1;
    }
  }
}

// Messages tagged by position (int_param) so that identity and order show;
// the text must travel with its tag.
std::vector<std::pair<int, int>> AfterRemoval(const std::vector<int>& keys, bool reference) {
  std::vector<Message_RTS> queue(keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) {
    queue[i].key = static_cast<RTS_key>(keys[i]);
    queue[i].int_param = static_cast<std::int32_t>(i);
    queue[i].text_param1 = "m" + std::to_string(i);
  }
  reference ? ReferenceWalk(queue) : remove_done(queue);
  std::vector<std::pair<int, int>> out;
  for (const auto& m : queue) {
    EXPECT_EQ(m.text_param1, "m" + std::to_string(m.int_param));
    out.emplace_back(m.key, m.int_param);
  }
  return out;
}

}  // namespace

TEST(RemovalPass, LeavesTheMessageBehindAHandledFirstOneAndMatchesTheWalk) {
  using Left = std::vector<std::pair<int, int>>;
  EXPECT_EQ(AfterRemoval({0, 0, 0}, false), (Left{{0, 1}}));
  EXPECT_EQ(AfterRemoval({3, 0, 20, 0, 0, 12, 0}, false), (Left{{3, 0}, {20, 2}, {12, 5}}));
  std::mt19937 rng(6868);
  for (int round = 0; round < 3000; ++round) {
    std::vector<int> keys(rng() % 14);
    for (int& key : keys) key = rng() % 3 == 0 ? 0 : 1 + static_cast<int>(rng() % 20);
    ASSERT_EQ(AfterRemoval(keys, false), AfterRemoval(keys, true)) << "round " << round;
  }
}
