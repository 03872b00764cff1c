#pragma once

// The live view's HTTP side: serves the embedded page, /state and /events
// from the snapshots the simulation loop publishes, and queues the page's
// controls for the loop. It never touches the simulation itself: the loop
// stays single-threaded, and a stalled or flooding browser can only occupy
// this server's own (bounded, idle-priority) threads.

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "view.h"

namespace httplib {
class Server;
}

namespace tarn_sim {

struct Control {
  enum Kind { kPause, kResume, kInject, kDrop } kind;
  int code = 0;  // the error code to inject
};

// The control named by a POST path ("/control/pause", "/control/resume",
// "/control/drop", "/control/error" with `code` from 1 to 99); false for
// anything else.
bool ParseControl(const std::string& path, const std::string& code, Control& out);

class WebServer {
 public:
  WebServer();
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  // Binds address:port (0: any free port) and serves from a thread of its
  // own. False, with the reason, when the port cannot be bound.
  bool Start(const std::string& address, int port, std::string& error);
  void Stop();
  int port() const { return port_; }

  // Replaces the snapshot every request and subscriber sees next. False,
  // without waiting, when an HTTP thread holds the lock: try again later.
  bool Publish(std::shared_ptr<const Snapshot> snapshot);

  // Readable (eventfd) while controls wait. TakeControls moves the queue
  // into `out`; false, without waiting, when the lock is busy.
  int control_fd() const { return control_fd_; }
  bool TakeControls(std::vector<Control>& out);

 private:
  std::shared_ptr<const Snapshot> Current();

  std::unique_ptr<httplib::Server> http_;
  std::thread thread_;
  int port_ = 0;
  int control_fd_ = -1;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::shared_ptr<const Snapshot> snapshot_;
  bool stopping_ = false;
  int subscribers_ = 0;
  std::deque<Control> controls_;
};

}  // namespace tarn_sim
