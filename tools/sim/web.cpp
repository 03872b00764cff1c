#include "web.h"

#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>

#include <httplib.h>

#include "web_assets.h"

namespace tarn_sim {
namespace {

// Worker threads for all HTTP connections together. Event-stream subscribers
// hold one each for as long as they stay, hence their own, smaller limit.
constexpr int kThreads = 8;
constexpr int kMaxSubscribers = 4;
// Queued controls beyond this are refused: a page cannot click faster.
constexpr std::size_t kMaxControls = 64;
// A subscriber that has not taken an event within this time is dropped, and
// an idle stream gets a comment line this often so proxies keep it open.
constexpr int kWriteTimeoutS = 2;
constexpr auto kKeepAlive = std::chrono::seconds(15);

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

WebServer::WebServer() : http_(std::make_unique<httplib::Server>()) {
  control_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

WebServer::~WebServer() {
  Stop();
  if (control_fd_ >= 0) ::close(control_fd_);
}

std::shared_ptr<const Snapshot> WebServer::Current() {
  std::lock_guard<std::mutex> lock(mutex_);
  return snapshot_;
}

// The loop never waits for the lock: an HTTP thread holding it may have been
// preempted (they run at idle priority), and the simulation must not wait
// for it to be scheduled again.
bool WebServer::Publish(std::shared_ptr<const Snapshot> snapshot) {
  {
    std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
    if (!lock) return false;
    snapshot_ = std::move(snapshot);
  }
  changed_.notify_all();
  return true;
}

bool WebServer::TakeControls(std::vector<Control>& out) {
  std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
  if (!lock) return false;
  std::uint64_t count = 0;
  if (::read(control_fd_, &count, sizeof count) < 0) {
    // Nothing signalled: the queue was emptied by an earlier call.
  }
  out.assign(controls_.begin(), controls_.end());
  controls_.clear();
  return true;
}

bool WebServer::Start(const std::string& address, int port, std::string& error) {
  httplib::Server& s = *http_;
  s.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  s.set_write_timeout(kWriteTimeoutS, 0);
  s.set_read_timeout(5, 0);
  s.set_keep_alive_timeout(2);
  // A script polling /state reuses its connection instead of opening a new
  // one every few requests.
  s.set_keep_alive_max_count(1000);
  // Headers and body go out in separate writes; without this the body waits
  // for the client's delayed acknowledgement (tens of milliseconds).
  s.set_tcp_nodelay(true);
  // The accepting thread would otherwise wake continuously between
  // connections; stop() shuts its socket down, which ends the wait anyway.
  s.set_idle_interval(3600, 0);

  s.Get("/state", [this](const httplib::Request&, httplib::Response& res) {
    std::shared_ptr<const Snapshot> snap = Current();
    res.set_header("Cache-Control", "no-store");
    res.set_content(snap ? ToJson(*snap) : "{}", "application/json");
  });

  s.Get("/events", [this](const httplib::Request&, httplib::Response& res) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (subscribers_ >= kMaxSubscribers) {
        res.status = 503;
        res.set_content("too many live views open\n", "text/plain");
        return;
      }
      ++subscribers_;
    }
    res.set_header("Cache-Control", "no-store");
    // Only the newest snapshot is ever pending for a subscriber: one that
    // falls behind skips states instead of queueing them.
    auto last = std::make_shared<unsigned long>(0);
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, last](std::size_t, httplib::DataSink& sink) {
          std::shared_ptr<const Snapshot> snap;
          {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait_for(lock, kKeepAlive,
                              [&] { return stopping_ || (snapshot_ && snapshot_->seq != *last); });
            if (stopping_) return false;
            snap = snapshot_;
          }
          if (!snap || snap->seq == *last) return sink.write(": idle\n\n", 9);
          *last = snap->seq;
          const std::string event = ToEvent(*snap);
          return sink.write(event.data(), event.size());
        },
        [this](bool) {
          std::lock_guard<std::mutex> lock(mutex_);
          --subscribers_;
        });
  });

  s.Post(R"(/control/[a-z]+)", [this](const httplib::Request& req, httplib::Response& res) {
    Control c{Control::kPause, 0};
    if (!ParseControl(req.path, req.get_param_value("code"), c)) {
      res.status = 400;
      res.set_content("unknown control or bad code\n", "text/plain");
      return;
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (controls_.size() >= kMaxControls) {
        res.status = 503;
        res.set_content("too many controls queued\n", "text/plain");
        return;
      }
      controls_.push_back(c);
    }
    const std::uint64_t one = 1;
    if (::write(control_fd_, &one, sizeof one) < 0) {
      // The counter is saturated only if the loop has stopped reading it.
    }
    res.status = 202;
    res.set_content("queued\n", "text/plain");
  });

  s.Get(R"(/[a-z.]*)", [](const httplib::Request& req, httplib::Response& res) {
    const WebAsset* a = FindAsset(req.path == "/" ? "/index.html" : req.path);
    if (!a) {
      res.status = 404;
      res.set_content("not found\n", "text/plain");
      return;
    }
    res.set_content(a->data, a->size, a->content_type);
  });

  if (port == 0) {
    port_ = s.bind_to_any_port(address);
    if (port_ <= 0) {
      error = "no free port";
      return false;
    }
  } else if (s.bind_to_port(address, port)) {
    port_ = port;
  } else {
    error = "port " + std::to_string(port) + " is in use or not available";
    return false;
  }
  thread_ = std::thread([this] {
    // Idle priority for this thread and the workers it starts (threads
    // inherit their creator's policy): the view is served with the processor
    // time the simulation and the control port leave over, so a flood of
    // requests slows the view, never the robot.
    const sched_param idle{};
    ::pthread_setschedparam(::pthread_self(), SCHED_IDLE, &idle);
    http_->listen_after_bind();
  });
  return true;
}

void WebServer::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) {
    http_->stop();
    thread_.join();
  }
}

}  // namespace tarn_sim
