#pragma once

// A Robot connected to a scripted control server on 127.0.0.1:6868. The
// Robot's connection, mailbox and action list are module-wide, so each test
// case runs in a process of its own. SetUp pins the handshake: the
// constructor prints nothing and only queues the announcement, which the
// first service step writes.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "robot/robot.h"
#include "tests/support/peer.h"
#include "tests/support/wire.h"

// A frame as this client sends it: from "T-0".
inline std::string Out(const std::string& receiver, std::int32_t key, const std::string& t1 = "N",
                       const std::string& t2 = "N", const std::string& t3 = "N",
                       std::int32_t int_param = 0) {
  return wire::frame(wire::body("T-0", receiver, key, t1, t2, t3, int_param));
}

// A frame addressed to this client.
inline std::string In(const std::string& sender, std::int32_t key, const std::string& t1 = "N",
                      const std::string& t2 = "N", std::int32_t int_param = 0) {
  return wire::frame(wire::body(sender, "T-0", key, t1, t2, "N", int_param));
}

// The keys of the messages queued for sending, oldest first.
inline std::vector<std::int32_t> OutboxKeys() {
  std::vector<std::int32_t> keys;
  for (const Message_RTS& m : m_msg.outbox["T-0"]) keys.push_back(m.key);
  return keys;
}

// The running actions, oldest first, as their path codes and arc path codes:
// "(0 1 arcN)(-1)"; a held entry (progress flag off) is marked "!(...)".
inline std::string Running() {
  std::string out;
  for (const auto& entry : acts) {
    std::string codes;
    for (const QrInfo_RTS& q : entry.second.path) codes += ' ' + q.qr_code;
    for (const QrInfo_ARC& q : entry.second.arc_path) codes += " arc" + q.qr_code;
    out += (entry.first ? "(" : "!(") + codes.substr(codes.empty() ? 0 : 1) + ")";
  }
  return out;
}

class RobotSession : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.listening());
    testing::internal::CaptureStdout();
    robot = std::make_unique<Robot>();
    ASSERT_EQ(testing::internal::GetCapturedStdout(), "");
    ASSERT_TRUE(robot->connected);
    ASSERT_TRUE(server.Accept());
    ASSERT_EQ(server.Read(20), "");
    robot->Handle();
    ASSERT_EQ(server.Read(), Out("SV-0", KEY_CONNECT));
  }

  // Writes the bytes and runs one service step once they can be read.
  void Feed(const std::string& bytes) {
    server.Send(bytes);
    loopback::wait_readable(m_socket.m_sock, 1000);
    robot->Handle();
  }

  void BringOnline() {
    Feed(In("SV-0", KEY_INIT));
    ASSERT_TRUE(robot->online);
  }

  loopback::Peer server{6868};
  std::unique_ptr<Robot> robot;
};
