#include <gtest/gtest.h>

#include <deque>

#include "msg/msg.h"

TEST(Records, WaypointDefaultsAndLabelOnlyComparison) {
  const QrInfo_RTS d;
  EXPECT_EQ(d.qr_code, "N");
  EXPECT_EQ(d.x + d.y + d.z, 0.0f);
  EXPECT_EQ(d.space_type, SPACE_DEFAULT);
  EXPECT_EQ(d.flag, -1);

  const QrInfo_RTS a("7", 1, 2, SPACE_DEFAULT, 1);
  EXPECT_EQ(a.z, 0.0f);
  const QrInfo_RTS same_label("7", 5, 6, static_cast<Space_type>(3), -1);
  const QrInfo_RTS other_label("07", 1, 2, SPACE_DEFAULT, 1);
  EXPECT_TRUE(a == same_label);
  EXPECT_FALSE(a != same_label);
  EXPECT_FALSE(a == other_label);
  EXPECT_TRUE(a != other_label);

  QrInfo_ARC arc;
  EXPECT_EQ(arc.flag, -1);
  EXPECT_EQ(arc.arc_param1 + arc.arc_param4, 0.0f);
  arc.qr_code = "7";
  EXPECT_TRUE(arc == a);
}

TEST(Records, ActionConstructors) {
  const Action_RTS from_empty(1, std::deque<QrInfo_RTS>{});
  EXPECT_EQ(from_empty.type, 1);
  EXPECT_EQ(from_empty.target.qr_code, "N");
  EXPECT_EQ(from_empty.target.flag, -1);
  EXPECT_EQ(from_empty.param, "f");

  QrInfo_RTS last("9", 3, 4, static_cast<Space_type>(2), 5);
  last.z = 6;
  const std::deque<QrInfo_RTS> path{QrInfo_RTS("1", 0, 0, SPACE_DEFAULT, 1), last};
  const Action_RTS along(1, path);
  ASSERT_EQ(along.path.size(), 2u);
  EXPECT_EQ(along.target.qr_code, "9");
  EXPECT_EQ(along.target.x, 3);
  EXPECT_EQ(along.target.y, 4);
  EXPECT_EQ(along.target.z, 6);
  EXPECT_EQ(along.target.space_type, 2);
  EXPECT_EQ(along.target.flag, 5);
  EXPECT_TRUE(along.arc_path.empty());

  const Action_RTS with_target(2, last, path);
  EXPECT_EQ(with_target.path.size(), 2u);
  EXPECT_EQ(with_target.param, "f");
  const Action_RTS no_param(3, last, "");
  EXPECT_TRUE(no_param.path.empty());
  EXPECT_EQ(no_param.param, "");
  EXPECT_EQ(no_param.target.z, 6);
}

TEST(Records, MessageDefaultsAndDeepCopy) {
  Message_RTS m;
  EXPECT_EQ(m.head_word, 0);
  EXPECT_EQ(m.key, KEY_NONE);
  EXPECT_EQ(m.int_param, 0);
  EXPECT_EQ(m.local_flag, 0);
  for (const std::string* s :
       {&m.sender_id, &m.receiver_id, &m.text_param1, &m.text_param2, &m.text_param3})
    EXPECT_EQ(*s, "N");
  EXPECT_TRUE(m.actions.empty());

  m.actions.emplace_back(1, std::deque<QrInfo_RTS>{QrInfo_RTS("4", 0, 0, SPACE_DEFAULT, 1)});
  Message_RTS copy = m;
  copy.actions[0].path[0].qr_code = "5";
  copy.actions[0].param = "g";
  EXPECT_EQ(m.actions[0].path[0].qr_code, "4");
  EXPECT_EQ(m.actions[0].param, "f");
}
