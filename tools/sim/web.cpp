#include "web.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "guarded_server.h"
#include "web_assets.h"

namespace tarn_sim {
namespace {

// Queued controls beyond this are refused: a page cannot click faster.
constexpr std::size_t kMaxControls = 64;

}  // namespace

bool ParseControl(const std::string& path, const std::string& code, Control& out) {
  if (path == "/control/pause") {
    out = Control{Control::kPause, 0};
  } else if (path == "/control/resume") {
    out = Control{Control::kResume, 0};
  } else if (path == "/control/drop") {
    out = Control{Control::kDrop, 0};
  } else if (path == "/control/error") {
    char* end = nullptr;
    const long n = std::strtol(code.c_str(), &end, 10);
    if (code.empty() || *end != '\0' || n < 1 || n > 99) return false;
    out = Control{Control::kInject, static_cast<int>(n)};
  } else {
    return false;
  }
  return true;
}

// The HTTP thread's state: the server and the newest snapshot, encoded once
// (when first asked for) and shared by every answer and stream.
struct WebServer::Loop {
  WebServer& owner;
  tarn_web::GuardedServer http;
  std::shared_ptr<const Snapshot> snap;
  std::shared_ptr<const std::string> json, event;

  explicit Loop(WebServer& o);
  bool TakeSnapshot();  // the newest snapshot; false once the server stops
  const std::string& Json() {
    if (!json) json = std::make_shared<const std::string>(snap ? ToJson(*snap) : "{}");
    return *json;
  }
  std::shared_ptr<const std::string> Event() {
    if (!event && snap) event = std::make_shared<const std::string>(ToEvent(*snap));
    return event;
  }
  void Queue(const httplib::Request& req, httplib::Response& res);
  void Run();
};

WebServer::Loop::Loop(WebServer& o) : owner(o) {
  http.Get("/state", [this](const httplib::Request&, httplib::Response& res) {
    TakeSnapshot();
    res.set_content(Json(), "application/json");
  });
  // The newest snapshot, which no wake-up announced while nobody subscribed.
  http.Events(
      "/events",
      [this] {
        TakeSnapshot();
        return Event();
      },
      "too many live views open\n");
  http.Post("/control/.*",
            [this](const httplib::Request& req, httplib::Response& res) { Queue(req, res); });
  http.Pages(tarn_web::FindAsset);
}

bool WebServer::Loop::TakeSnapshot() {
  std::lock_guard<std::mutex> lock(owner.mutex_);
  if (owner.stopping_) return false;
  if (owner.snapshot_ != snap) {
    snap = owner.snapshot_;
    json.reset();
    event.reset();
  }
  return true;
}

void WebServer::Loop::Queue(const httplib::Request& req, httplib::Response& res) {
  Control control{Control::kPause, 0};
  if (!ParseControl(req.path, req.get_param_value("code"), control))
    return tarn_web::Reply(res, 400, "unknown control or bad code\n");
  {
    std::lock_guard<std::mutex> lock(owner.mutex_);
    if (owner.controls_.size() >= kMaxControls)
      return tarn_web::Reply(res, 503, "too many controls queued\n");
    owner.controls_.push_back(control);
  }
  const std::uint64_t one = 1;
  if (::write(owner.control_fd_, &one, sizeof one) < 0) {
    // The counter is saturated only if the loop has stopped reading it.
  }
  tarn_web::Reply(res, 202, "queued\n");
}

void WebServer::Loop::Run() {
  std::vector<pollfd> fds;
  while (true) {
    fds.assign(1, {owner.wake_fd_, POLLIN, 0});
    auto wake = tarn_web::GuardedServer::Clock::time_point::max();
    http.Prepare(fds, wake);
    if (::poll(fds.data(), fds.size(), tarn_web::PollTimeout(wake)) < 0 && errno != EINTR) return;
    if (fds[0].revents & POLLIN) {
      std::uint64_t count;
      if (::read(owner.wake_fd_, &count, sizeof count) < 0) {
        // Already drained: the wake-up it announced is this one.
      }
      if (!TakeSnapshot()) return;
      // Also when an answer took this snapshot first: streams have not seen it.
      if (http.streams() > 0) http.Broadcast(Event());
    }
    http.Service(fds.data() + 1);
  }
}

WebServer::WebServer() {
  control_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  wake_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

WebServer::~WebServer() {
  Stop();
  if (control_fd_ >= 0) ::close(control_fd_);
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

// The loop never waits for the lock: the HTTP thread holding it may have
// been preempted (it runs at a lower priority), and the simulation must not
// wait for it to be scheduled again.
bool WebServer::Publish(std::shared_ptr<const Snapshot> snapshot) {
  {
    std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
    if (!lock) return false;
    snapshot_ = std::move(snapshot);
  }
  // Only streams need to hear of it; a reader of /state takes the newest
  // snapshot when it asks.
  const std::uint64_t one = 1;
  if (loop_ && loop_->http.streams() > 0 && ::write(wake_fd_, &one, sizeof one) < 0) {
    // Saturated: the HTTP thread has a wake-up pending anyway.
  }
  return true;
}

bool WebServer::TakeControls(std::vector<Control>& out) {
  std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock) return false;
  std::uint64_t count = 0;
  if (::read(control_fd_, &count, sizeof count) < 0) {
    // Nothing signalled: the queue was emptied by an earlier call.
  }
  out = std::move(controls_);
  controls_.clear();
  return true;
}

bool WebServer::Start(const WebOptions& options, std::string& error) {
  auto loop = std::make_unique<Loop>(*this);
  tarn_web::GuardedServer::Options o;
  o.address = options.address;
  o.port = options.port;
  o.names = options.names;
  o.token = options.token;
  o.controls = "/control/";
  if (!loop->http.Listen(o, error)) return false;
  port_ = loop->http.port();
  token_ = loop->http.token();
  loop_ = std::move(loop);
  thread_ = std::thread([this] {
    // A lower priority than the simulation's (nice 10 for this thread only):
    // whenever the loop or a control client wants a processor it comes
    // first, so a flood of requests slows the view rather than the robot.
    // Not the idle class: two busy programs on two cores held a /state
    // answer back for seconds there, the view must stay usable on a busy
    // machine too.
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 10);
    loop_->Run();
  });
  return true;
}

void WebServer::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  const std::uint64_t one = 1;
  if (::write(wake_fd_, &one, sizeof one) < 0) {
    // Saturated: a wake-up is pending anyway.
  }
  if (thread_.joinable()) thread_.join();
  loop_.reset();
}

}  // namespace tarn_sim
