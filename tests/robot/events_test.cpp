// The event layer against a scripted control server on 127.0.0.1:6868: each
// message seen once, in arrival order, with the Robot's fields as the library
// left them; a step that stays bounded under a flood; and what happens when
// the stream ends, breaks or is hung up on. The server's frames are written
// by hand. Every case runs in a process of its own (module-wide globals).

#include "robot/events.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/peer.h"
#include "tests/support/wire.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// While set, every other recv() on a non-blocking socket answers "nothing
// yet", as a real connection does when data arrives a moment later.
bool g_stutter = false;

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t recv(int fd, void* buf, size_t n,
                                                               int flags) {
  static auto real =
      reinterpret_cast<ssize_t (*)(int, void*, size_t, int)>(dlsym(RTLD_NEXT, "recv"));
  static bool skip = false;
  if (g_stutter && (skip = !skip)) {
    errno = EAGAIN;
    return -1;
  }
  return real(fd, buf, n, flags);
}

namespace {

std::string In(const std::string& sender, std::int32_t key, const std::string& t1 = "N",
               const std::string& t2 = "N", std::int32_t value = 0, const std::string& t3 = "N") {
  return wire::frame(wire::body(sender, "T-0", key, t1, t2, t3, value));
}
std::string Report(const std::string& numbers, const std::string& online = "N") {
  return In("R-0", KEY_DETAIL, numbers, "R-0", 0, online);
}

class EventsTest : public testing::Test {
 protected:
  void SetUp() override {
    loopback::listen(listener, 6868);
    CaptureStdout();
    robot = tarn::connect(std::chrono::seconds(5));
    ASSERT_TRUE(robot->connected);
    ASSERT_GE(server.Get(loopback::wait_for([this] { return listener.Accpet_client(); })), 0);
    GetCapturedStdout();
    events = std::make_unique<tarn::Events>(*robot);
  }

  // Steps until `n` events have come (at most 5 s), recording each with the
  // Robot's fields at the moment it was handed over.
  void Collect(std::size_t n) {
    const auto deadline = tarn::Events::Clock::now() + std::chrono::seconds(5);
    events->serve_until(
        deadline, [this](const tarn::Event& e) { Record(e); }, [&] { return seen.size() >= n; });
  }
  void Record(const tarn::Event& e) {
    seen.push_back(e);
    log += std::string(tarn::event_name(e.type)) + (robot->online ? "+" : "-") + " ";
  }

  Socket listener, server;
  std::unique_ptr<Robot> robot;
  std::unique_ptr<tarn::Events> events;
  std::vector<tarn::Event> seen;
  std::string log;
};

TEST_F(EventsTest, EveryMessageOnceInArrivalOrderWithTheFieldsItLeft) {
  // Replies from two senders in one burst, and data that arrives "a moment
  // later" on every other receive: none of it may be applied unseen.
  g_stutter = true;
  robot->Init(0, 0, 0);
  server.Send(In("SV-0", KEY_KILL) + Report("24.5 1.5 -2 -1 0.25 10 20", "online") +
              In("SV-0", KEY_INIT) + In("R-0", 5, "x") + Report("24 1 2 7") +
              Report("23 9 9 7 nan") + In("SV-0", KEY_KILL));
  Collect(7);
  EXPECT_EQ(log,
            "kill acknowledged- report- init acknowledged+ other+ refused+ report+ "
            "kill acknowledged- ");
  ASSERT_EQ(seen.size(), 7u);
  const tarn::Report& first = seen[1].report;
  EXPECT_TRUE(first.complete);
  EXPECT_EQ(first.online, std::optional<bool>(true));
  EXPECT_FLOAT_EQ(first.x, 1.5f);
  EXPECT_FLOAT_EQ(first.acceleration, 20.0f);
  EXPECT_EQ(first.name, "R-0");
  EXPECT_EQ(seen[3].message.key, 5);
  // Refused once, on the change into the error; a short report keeps the
  // later fields of the one before, and the one that repeats the code is a
  // plain report.
  EXPECT_EQ(seen[4].code, 7);
  EXPECT_EQ(seen[4].report.state, 7);
  EXPECT_FALSE(seen[4].report.complete);
  EXPECT_FLOAT_EQ(seen[4].report.orientation, 0.25f);
  EXPECT_FALSE(seen[4].report.online.has_value());
  EXPECT_FLOAT_EQ(seen[5].report.x, 9.0f);
  EXPECT_TRUE(m_msg.inbox.empty());
  // The init and the kill went out before anything came back.
  g_stutter = false;
  const std::string sent = loopback::read_all(server);
  EXPECT_NE(sent.find(wire::body("T-0", "SV-0", KEY_INIT, "0.000000", "0.000000", "0.000000")),
            std::string::npos);

  EXPECT_EQ(tarn::describe_state(-1), "free");
  EXPECT_EQ(tarn::describe_state(3), "error 3 (busy)");
  EXPECT_EQ(tarn::describe_state(9), "error 9");
}

TEST_F(EventsTest, WayPointsCountedPerActionAsSentAndFinishedActionsClosed) {
  server.Send(In("SV-0", KEY_INIT));
  Collect(1);
  ASSERT_TRUE(tarn::set_path(*robot, {{{100, 0, 0}}, {{200, 0, 0}}, {{300, 0, 0}}}));
  ASSERT_TRUE(robot->SetPosition(50, 50, 0));
  // "path" 2 at once, then 1; the first action ends; progress of the second.
  server.Send(In("R-0", KEY_ACTION, "path", "N", 2) + In("R-0", KEY_ACTION, "path", "N", 1) +
              In("R-0", KEY_ACTION, "action") + In("R-0", KEY_ACTION, "path", "N", 1) +
              In("R-0", KEY_ACTION, "action") + In("R-0", KEY_ACTION, "path", "N", 1));
  Collect(7);
  ASSERT_EQ(seen.size(), 7u);
  std::string progress;
  for (std::size_t i = 1; i < seen.size(); ++i)
    progress += std::string(tarn::event_name(seen[i].type)) + " " + std::to_string(seen[i].passed) +
                "/" + std::to_string(seen[i].total) + ", ";
  EXPECT_EQ(progress,
            "way-point passed 2/3, way-point passed 3/3, action finished 3/3, "
            "way-point passed 1/1, action finished 1/1, way-point passed 0/0, ");
  EXPECT_TRUE(acts.empty());
}

TEST_F(EventsTest, FloodIsServedInBoundedStepsWithNothingLost) {
  const std::string report = Report("24 0 0 -1 0 0 0");
  const int frames = 20000;
  std::string burst;
  for (int i = 0; i < frames; ++i) burst += report;
  std::size_t written = 0, delivered = 0, steps = 0, largest_buffer = 0;
  while (delivered < static_cast<std::size_t>(frames)) {
    if (written < burst.size()) {
      const ssize_t n = send(server.m_sock, burst.data() + written,
                             std::min<std::size_t>(burst.size() - written, 65536), MSG_DONTWAIT);
      if (n > 0) written += static_cast<std::size_t>(n);
    }
    const std::size_t got = events->step([](const tarn::Event&) {});
    ASSERT_LE(got, tarn::Events::Limits().messages);
    delivered += got;
    largest_buffer = std::max(largest_buffer, m_socket.m_buffer.size());
    if (!events->backlog() && written == burst.size())
      events->wait(std::chrono::milliseconds(1000));
    ASSERT_LT(++steps, 100000u);
  }
  EXPECT_EQ(delivered, static_cast<std::size_t>(frames));
  EXPECT_GT(steps, frames / tarn::Events::Limits().messages);
  EXPECT_LE(largest_buffer, frame_max_size + socket_recv_limit);
}

TEST_F(EventsTest, ClosedStreamDeliversWhatWasBufferedThenLostOnce) {
  server.Send(In("SV-0", KEY_INIT) + Report("24 3 4 -1 0 0 0"));
  shutdown(server.m_sock, SHUT_WR);
  CaptureStdout();
  Collect(3);
  events->step([this](const tarn::Event& e) { Record(e); });
  EXPECT_EQ(GetCapturedStdout(), "socket dis connect\n");
  EXPECT_EQ(log, "init acknowledged+ report+ connection lost+ ");
  EXPECT_FALSE(robot->connected);
  EXPECT_TRUE(events->lost());
  EXPECT_EQ(events->poll_entry().fd, -1);
}

TEST_F(EventsTest, UnreadableStreamsStopTheReadingButNotTheSending) {
  // A message that announces a million actions in a few bytes is refused
  // before the library builds them; the kill queued afterwards still goes out.
  const std::string liar =
      wire::frame(wire::body("R-0", "T-0", KEY_ACTION, "path", "N", "N", 1, 1000000));
  server.Send(Report("24 0 0 -1") + liar + In("SV-0", KEY_INIT));
  Collect(2);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1].type, tarn::EventType::Unreadable);
  EXPECT_EQ(seen[1].reason, "a message announcing 1000000 actions in 1 bytes");
  EXPECT_TRUE(events->unreadable());
  robot->Kill();
  events->step([this](const tarn::Event& e) { Record(e); });
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_EQ(loopback::read_all(server).substr(0, 1), "#");
  EXPECT_EQ(events->poll_entry().fd, -1);
}

TEST_F(EventsTest, WayPointCountBeyondTheFrameIsUnreadableBeforeAnyIsBuilt) {
  // Type, the count, and room for the rest of an action without way-points.
  const std::string action = wire::Bytes().i32(1).i32(1000000).raw(std::string(24, '\0')).s;
  server.Send(wire::frame(wire::body("R-0", "T-0", KEY_ACTION, "path", "N", "N", 1, 1, action)));
  Collect(1);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].reason, "a message announcing 1000000 way-points in 25 bytes");
}

TEST_F(EventsTest, CountReadFromBehindTheFrameIsUnreadable) {
  // The body stops at its opening '%': the decoder would take the action
  // count from the ';' and the next frame's first bytes (729915 actions).
  const std::string cut = wire::body("R-0", "T-0", KEY_DETAIL, "24 0 0 -1");
  server.Send(wire::frame(cut.substr(0, cut.size() - 5)) + Report("24 0 0 -1"));
  Collect(1);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].reason, "a message that runs past its frame");
}

TEST_F(EventsTest, FramesTheLibraryCannotFileAreUnreadableWithTheReason) {
  server.Send(wire::frame(wire::body("R-0", "T-0", KEY_DETAIL), 12));
  Collect(1);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].reason, "a frame of type 12");
}

TEST_F(EventsTest, NegativeLengthWordIsUnreadableNotAnException) {
  server.Send(wire::header(-10));
  Collect(1);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].type, tarn::EventType::Unreadable);
  EXPECT_EQ(seen[0].reason.rfind("the library could not decode a frame: ", 0), 0u);
}

TEST_F(EventsTest, HangUpFlushesThenWaitsForTheServersCloseWithoutALostConnection) {
  robot->Kill();
  CaptureStdout();
  bool done = false;
  std::thread peer([this, &done] {
    // The kill arrives, then the half-close; the server answers and closes.
    std::string got;
    for (std::string chunk; loopback::wait_readable(server.m_sock, 5000);) {
      const int n = server.Recv(chunk);
      if (n <= 0) break;
      got += chunk;
    }
    done = got.find(wire::body("T-0", "SV-0", KEY_KILL)) != std::string::npos;
    server.Send(In("SV-0", KEY_KILL));
    shutdown(server.m_sock, SHUT_WR);
  });
  const bool ended = events->hang_up(tarn::Events::Clock::now() + std::chrono::seconds(5),
                                     [this](const tarn::Event& e) { Record(e); });
  peer.join();
  EXPECT_TRUE(ended && done);
  EXPECT_EQ(log, "kill acknowledged- ");
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_FALSE(events->lost());
}

TEST_F(EventsTest, LongestPathFitsTheReceiversFrameLimitAndOneMoreIsRefused) {
  server.Send(In("SV-0", KEY_INIT));
  Collect(1);
  const std::size_t most = tarn::max_path_points();
  std::vector<std::array<float, 3>> points(most + 1, {{1, 2, 0}});
  EXPECT_FALSE(tarn::set_path(*robot, points));
  points.pop_back();
  ASSERT_TRUE(tarn::set_path(*robot, points));
  ASSERT_TRUE(events->flush(tarn::Events::Clock::now() + std::chrono::seconds(10),
                            [](const tarn::Event&) {}));
  // The receiver's own frame cutter files it; one point more would be over.
  MailBox box;
  Socket& s = server;
  const auto deadline = tarn::Events::Clock::now() + std::chrono::seconds(10);
  std::vector<Message_RTS>& filed = box.inbox["T-0"];  // the announcement, then the path
  while (filed.size() < 2 && tarn::Events::Clock::now() < deadline) {
    loopback::wait_readable(s.m_sock, 100);
    recv_msg(s, box);
  }
  ASSERT_EQ(filed.size(), 2u);
  EXPECT_EQ(filed[1].actions.at(0).path.size(), most);
  const std::size_t frame = filed[1].str().size() + frame_header_size + 1;
  EXPECT_LE(frame, frame_max_size);
  EXPECT_GT(frame + 24 + (std::to_string(most).size() - std::to_string(most - 1).size()),
            frame_max_size);
}

}  // namespace

TEST(EventsConnect, FullAcceptQueueGivesUpAtTheLimit) {
  // Backlog 0: the kernel queues one connection; a second handshake waits.
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(6868);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(fd, 0), 0);
  Socket held;
  ASSERT_TRUE(held.Create() && held.Client_connect("127.0.0.1", 6868));
  const auto start = std::chrono::steady_clock::now();
  CaptureStdout();
  std::unique_ptr<Robot> robot = tarn::connect(std::chrono::milliseconds(300));
  EXPECT_EQ(GetCapturedStdout(), "Can Not Connect Server !\n");
  EXPECT_FALSE(robot->connected);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  struct sigaction now {};
  sigaction(SIGALRM, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_DFL);
  close(fd);
}
