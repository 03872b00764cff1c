#pragma once

// The tools' HTTP server (the simulator's live view, the fleet map): cpp-httplib
// reads every request, routes it and writes every answer, while the
// connections are kept here, by the owner's poll() loop, each under a
// deadline, so that no client can hold the server up.
//
// Why not cpp-httplib's own listen loop: it gives each connection a thread
// of its pool for as long as the connection lasts, so a few held connections
// (a request sent a byte a second, a subscriber that never reads) silence
// it, and a bigger pool only raises that number; and 0.11 only times out
// single reads, which a byte a second never trips. So the loop here accepts
// and reads; once a connection holds a request's head, it hands the buffered
// bytes to cpp-httplib's request processing through a Stream over the
// buffers, and sends what cpp-httplib wrote as the socket takes it. The only
// framing done here is finding the end of the head and the announced body
// length (guard.h); a connection costs a descriptor and at most a head, a
// body and its answer until its deadline.
//
// What it answers, and to whom (guard.h has the rules):
//   - only requests whose Host is one of its own names (421 otherwise);
//   - controls only from its own origin, as application/json, with the token
//     when it has one (403 otherwise); a refused control reaches no handler;
//   - the head within 8 KiB (431) and 2 s of its first byte (408); a body only
//     on a control, at most 4 KiB, refused with 413 from the announced length
//     before any of it is read;
//   - a connection waits 2 s for its first request and 5 s for a later one;
//     output that does not move for 2 s closes it, event streams included;
//   - at most 8 event streams (503) and 512 connections, the connection that
//     has waited longest for a request giving way to a newcomer.
// Answers are neither compressed nor cut into ranges: each would cost work
// and memory per request that a client could ask for without limit.

#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "guard.h"
#include "web_assets.h"

namespace tarn_web {

// A plain-text answer.
void Reply(httplib::Response& res, int status, const std::string& text);

// poll()'s timeout until `wake`: -1 for never (time_point::max()).
int PollTimeout(std::chrono::steady_clock::time_point wake);

class GuardedServer : private httplib::Server {
 public:
  using Clock = std::chrono::steady_clock;

  struct Options {
    std::string address = "127.0.0.1";  // IPv4 address to listen on
    int port = 0;                       // 0: any free port
    // Further Host names to answer to: the names under which other machines
    // reach this one when the server listens beyond loopback.
    std::vector<std::string> names;
    // Whether controls need a token, made up by Listen (see token()).
    bool token = false;
    std::string controls;  // path prefix of the controls; empty: none
  };

  GuardedServer();
  ~GuardedServer() override;
  GuardedServer(const GuardedServer&) = delete;
  GuardedServer& operator=(const GuardedServer&) = delete;

  // Binds. False, with the reason, when the address cannot be bound.
  bool Listen(const Options& options, std::string& error);
  int port() const { return policy_.port; }
  // What the controls require in X-Tarn-Token: 32 random hexadecimal digits
  // when the options asked for a token, otherwise empty (none).
  const std::string& token() const { return policy_.token; }

  // Routes, cpp-httplib's own, tried in the order given. A GET handler
  // serves HEAD too. Handlers run on the thread that calls Service().
  using httplib::Server::Get;
  using httplib::Server::Post;

  // The embedded page at / and its other files by name, for GET; 404 for
  // any other path. Routes given earlier come first.
  void Pages(const WebAsset* (*find)(const std::string& path));

  // Server-sent events at `path`. A subscriber gets newest() at once (when
  // it differs from the last event broadcast, every other subscriber gets it
  // too), then each event broadcast; one that falls behind skips to the
  // newest rather than queueing them. Beyond 8 subscribers, 503 with `busy`.
  void Events(const std::string& path, std::function<std::shared_ptr<const std::string>()> newest,
              const std::string& busy);
  // A complete event ("event: ...\ndata: ...\n\n"), for every subscriber;
  // nothing when it is the one broadcast last (the same object) or null.
  void Broadcast(std::shared_ptr<const std::string> event);
  // Event streams open; safe to read from any thread.
  int streams() const { return streams_; }

  // The owner's poll() loop: Prepare appends this server's descriptors to
  // `fds` and brings `wake` forward to its next deadline; after poll(),
  // Service takes the same entries (the first one Prepare appended).
  void Prepare(std::vector<pollfd>& fds, Clock::time_point& wake);
  void Service(const pollfd* fds);

 private:
  struct Conn;
  struct Exchange;
  class Buffered;

  void Accept();
  void Evict();
  void Close(Conn& c);
  void Reap();
  short Events(const Conn& c) const;
  void Service(Conn& c, short revents);
  void Expire(Conn& c);
  bool Flush(Conn& c);
  void Finished(Conn& c);
  void Serve(Conn& c);
  void Answer(Conn& c, const Framing& framing, int fault);
  Verdict Screen(const httplib::Request& req) const;

  Policy policy_;
  int listen_fd_ = -1;
  std::vector<std::unique_ptr<Conn>> conns_;
  std::size_t polled_ = 0;         // conns_ given to the last Prepare
  Clock::time_point accept_from_;  // accepting paused until then
  Clock::time_point now_;
  Exchange* current_ = nullptr;                // the request cpp-httplib is processing
  std::shared_ptr<const std::string> latest_;  // the last event broadcast
  std::atomic<int> streams_{0};
};

}  // namespace tarn_web
