#pragma once

// The live view's routes: the embedded page, /state and /events from the
// snapshots the simulation loop publishes, and the page's controls, queued
// for the loop. It never touches the simulation itself: the loop stays
// single-threaded, and whatever browsers or other clients do costs only this
// server's one (lower-priority) thread and bounded memory.
//
// The HTTP side is the tools' guarded server (tools/web/guarded_server.h):
// only its own Host names, controls (POST /control/...) only from its own
// origin as application/json, and, beyond loopback, with the token printed at
// start in X-Tarn-Token; bounded requests, deadlines on every connection.

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "guard.h"
#include "view.h"

namespace tarn_sim {

struct Control {
  enum Kind { kPause, kResume, kInject, kDrop } kind;
  int code = 0;  // the error code to inject
};

// The control named by a POST path ("/control/pause", "/control/resume",
// "/control/drop", "/control/error" with `code` from 1 to 99); false for
// anything else.
bool ParseControl(const std::string& path, const std::string& code, Control& out);

struct WebOptions {
  std::string address = "127.0.0.1";  // IPv4 address to listen on
  int port = 6869;                    // 0: any free port
  // Further Host names to answer to: the names under which other machines
  // reach this one when the view listens beyond loopback.
  std::vector<std::string> names;
  // Whether the controls need a token, made up at Start (see token()).
  bool token = false;
};

using tarn_web::IsLoopback;

class WebServer {
 public:
  WebServer();
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  // Binds and serves from a thread of its own. False, with the reason, when
  // the address cannot be bound.
  bool Start(const WebOptions& options, std::string& error);
  void Stop();
  int port() const { return port_; }
  // What the controls require in X-Tarn-Token: 32 random hexadecimal digits
  // when the options asked for a token, otherwise empty (none).
  const std::string& token() const { return token_; }

  // Replaces the snapshot every request and subscriber sees next. False,
  // without waiting, when the HTTP thread holds the lock: try again later.
  bool Publish(std::shared_ptr<const Snapshot> snapshot);

  // Readable (eventfd) while controls wait. TakeControls moves the queue
  // into `out`; false, without waiting, when the lock is busy.
  int control_fd() const { return control_fd_; }
  bool TakeControls(std::vector<Control>& out);

 private:
  struct Loop;  // the HTTP thread's own state, in web.cpp

  std::unique_ptr<Loop> loop_;
  std::thread thread_;
  int port_ = 0;
  std::string token_;
  int control_fd_ = -1;
  int wake_fd_ = -1;  // tells the HTTP thread about a snapshot or a stop
  std::mutex mutex_;  // guards the three below
  std::shared_ptr<const Snapshot> snapshot_;
  bool stopping_ = false;
  std::vector<Control> controls_;
};

}  // namespace tarn_sim
