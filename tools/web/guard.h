#pragma once

// What the guarded HTTP server decides from a request's bytes and headers
// alone, kept apart from sockets so that it is tested with plain values:
// where a request's head ends and how long its body is (the only framing the
// server does before cpp-httplib reads the request), whether the request is
// addressed to the server under one of its own names, and whether it may
// change anything.
//
// The vocabulary: GET (and HEAD) reads and takes no body; a POST under the
// policy's control path is a control, a request that changes state, and comes
// only from the server's own origin, as application/json, with a body of at
// most Policy::max_body bytes and, when the policy has one, the token. Other
// methods are refused.

#include <httplib.h>

#include <cstddef>
#include <set>
#include <string>

namespace tarn_web {

// Request line and headers, blank line included.
constexpr std::size_t kMaxHead = 8192;

// Whether an IPv4 address text lies in 127.0.0.0/8.
bool IsLoopback(const std::string& address);

// Where the first request in a connection's input ends, read from its head:
// the head ends at the first empty line, the body is as long as the one
// Content-Length says. Anything else that could frame a body is flagged for
// refusal rather than interpreted: the server and cpp-httplib must never
// disagree about where one request ends and the next begins.
struct Framing {
  enum Result {
    kPartial,   // no end of the head yet, within kMaxHead
    kComplete,  // head found
    kTooLarge,  // kMaxHead bytes without the end of a head
  } result = kPartial;
  std::size_t head = 0;     // bytes of the head, blank line included (kComplete)
  std::size_t body = 0;     // the announced length; 0 when absent or unusable
  bool bad_length = false;  // Content-Length twice, empty, or not plain digits
  bool transfer_encoding = false;
};
Framing Frame(const std::string& input);

struct Policy {
  std::set<std::string> names;  // own host names, lower case, without port
  int port = 0;                 // the port a Host may name
  std::string controls;         // path prefix of the controls; empty: none
  std::string token;            // what controls need in X-Tarn-Token; empty: nothing
  std::size_t max_body = 4096;  // of a control
};

// A refusal: the status and the one-line text that explains it. Status 0
// lets the request through.
struct Verdict {
  int status = 0;
  std::string text;
  explicit operator bool() const { return status != 0; }
};

// Whether a Host header value names this server: one of the policy's names,
// with no port or the policy's port.
bool HostAllowed(const std::string& host, const Policy& policy);

// The refusal of a request whose head cpp-httplib has parsed, `framing`
// being the server's own reading of the same head.
Verdict Check(const httplib::Request& request, const Framing& framing, const Policy& policy);

// Whether the client asked for the connection to end after this answer
// (Connection: close, in any case, or HTTP/1.0 without keep-alive).
bool WantsClose(const httplib::Request& request);

}  // namespace tarn_web
