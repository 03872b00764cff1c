#include <gtest/gtest.h>

#include <deque>

#include "support.h"

TEST(Records, WaypointDefaultsAndLabelOnlyComparison) {
  EXPECT_EQ(fields(QrInfo_RTS()), std::make_tuple(std::string("N"), 0.f, 0.f, 0.f, 0, -1));
  const QrInfo_RTS a("7", 1, 2, static_cast<Space_type>(3), 1);
  EXPECT_EQ(fields(a), std::make_tuple(std::string("7"), 1.f, 2.f, 0.f, 3, 1));
  const QrInfo_RTS same_label("7", 5, 6, SPACE_DEFAULT, -1),
      other_label("07", 1, 2, SPACE_DEFAULT, 1);
  EXPECT_TRUE(a == same_label && !(a != same_label));
  EXPECT_TRUE(a != other_label && !(a == other_label));
  QrInfo_ARC arc;
  EXPECT_EQ(std::make_tuple(arc.flag, arc.arc_param1, arc.arc_param4),
            std::make_tuple(-1, 0.f, 0.f));
  arc.qr_code = "7";
  EXPECT_TRUE(arc == a);
}

TEST(Records, ActionConstructorsAndMessageDefaults) {
  const Action_RTS from_empty(1, std::deque<QrInfo_RTS>{});
  EXPECT_EQ(fields(from_empty.target), fields(QrInfo_RTS()));
  EXPECT_EQ(from_empty.param, "f");
  QrInfo_RTS last("9", 3, 4, static_cast<Space_type>(2), 5);
  last.z = 6;
  const std::deque<QrInfo_RTS> path{waypoint("1"), last};
  const Action_RTS along(1, path);
  EXPECT_EQ(fields(along.target), fields(last));
  EXPECT_EQ(along.path.size(), 2u);
  EXPECT_EQ(Action_RTS(2, waypoint("t"), path).param, "f");
  const Action_RTS no_param(3, last, "");
  EXPECT_TRUE(no_param.param.empty() && no_param.path.empty() && no_param.target.z == 6);

  Message_RTS m;
  EXPECT_EQ(std::make_tuple(m.head_word, static_cast<int>(m.key), m.int_param, m.local_flag),
            std::make_tuple(0, 0, 0, 0));
  EXPECT_EQ(m.sender_id + m.receiver_id + m.text_param1 + m.text_param2 + m.text_param3, "NNNNN");
  EXPECT_TRUE(m.actions.empty());
  m.actions.push_back(along);
  Message_RTS copy = m;
  copy.actions[0].path[0].qr_code = "5";
  EXPECT_EQ(m.actions[0].path[0].qr_code, "1");
}
