#include "guard.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace tarn_web {
namespace {

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Without the blanks cpp-httplib also drops around a header value.
std::string Trim(const std::string& s) {
  const std::size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

bool IsToken(const std::string& s) {
  if (s.empty()) return false;
  for (unsigned char c : s)
    if (c <= ' ' || c >= 0x7f || std::strchr("\"(),/:;<=>?@[\\]{}", c)) return false;
  return true;
}

// Compares without stopping at the first difference, so the time a wrong
// token takes tells nothing about the right one.
bool SameSecret(const std::string& a, const std::string& b) {
  unsigned char diff = a.size() == b.size() ? 0 : 1;
  for (std::size_t i = 0; i < a.size(); ++i)
    diff |= static_cast<unsigned char>(a[i] ^ (i < b.size() ? b[i] : 0));
  return diff == 0;
}

std::string Size(std::size_t bytes) {
  return bytes % 1024 == 0 ? std::to_string(bytes / 1024) + " KiB"
                           : std::to_string(bytes) + " bytes";
}

// Why a control is refused, or nullptr. The Host is already known to be one
// of the server's names, so its own origin is http:// and that Host.
const char* ControlRefusal(const httplib::Request& r, const Policy& p) {
  const std::string own = "http://" + Lower(r.get_header_value("Host"));
  if (r.has_header("Origin")) {
    if (Lower(r.get_header_value("Origin")) != own) return "cross-origin request refused\n";
  } else if (r.has_header("Referer")) {
    const std::string from = Lower(r.get_header_value("Referer"));
    if (from != own && from.compare(0, own.size() + 1, own + "/") != 0)
      return "cross-origin request refused\n";
  }
  const std::string type = r.get_header_value("Content-Type");
  if (Lower(Trim(type.substr(0, type.find(';')))) != "application/json")
    return "controls need Content-Type: application/json\n";
  if (!p.token.empty() && !SameSecret(r.get_header_value("X-Tarn-Token"), p.token))
    return "controls need the token printed at start, in X-Tarn-Token\n";
  return nullptr;
}

}  // namespace

bool IsLoopback(const std::string& address) {
  in_addr a{};
  return inet_pton(AF_INET, address.c_str(), &a) == 1 && (ntohl(a.s_addr) >> 24) == 127;
}

Framing Frame(const std::string& in) {
  Framing f;
  const std::size_t end = in.find("\r\n\r\n");
  if (end == std::string::npos || end + 4 > kMaxHead) {
    f.result = in.size() >= kMaxHead ? Framing::kTooLarge : Framing::kPartial;
    return f;
  }
  f.result = Framing::kComplete;
  f.head = end + 4;
  int lengths = 0;
  for (std::size_t at = in.find("\r\n") + 2; at < f.head - 2;) {
    const std::size_t eol = in.find("\r\n", at);
    const std::string line = in.substr(at, eol - at);
    at = eol + 2;
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;  // refused once parsed: not a header
    const std::string name = Lower(line.substr(0, colon));
    const std::string value = Trim(line.substr(colon + 1));
    if (name == "transfer-encoding") {
      f.transfer_encoding = true;
    } else if (name == "content-length") {
      ++lengths;
      if (value.empty() || value.size() > 12 ||
          value.find_first_not_of("0123456789") != std::string::npos)
        f.bad_length = true;
      else
        f.body = std::strtoull(value.c_str(), nullptr, 10);
    }
  }
  if (lengths > 1) f.bad_length = true;
  if (f.bad_length) f.body = 0;
  return f;
}

bool HostAllowed(const std::string& value, const Policy& policy) {
  const std::string host = Lower(value);
  std::size_t colon = std::string::npos;
  if (!host.empty() && host[0] == '[') {
    const std::size_t close = host.find(']');
    if (close == std::string::npos) return false;
    if (close + 1 < host.size()) {
      if (host[close + 1] != ':') return false;
      colon = close + 1;
    }
  } else {
    colon = host.find(':');
  }
  if (colon != std::string::npos && host.substr(colon + 1) != std::to_string(policy.port))
    return false;
  return policy.names.count(host.substr(0, colon)) > 0;
}

Verdict Check(const httplib::Request& r, const Framing& f, const Policy& p) {
  // A name with blanks in it (a line folded onto the one before) or a control
  // byte in a value is how requests are smuggled past a reader that takes
  // them otherwise; cpp-httplib keeps both, they have no place here.
  for (const auto& [name, value] : r.headers) {
    if (!IsToken(name)) return {400, "malformed request\n"};
    for (unsigned char c : value)
      if ((c < ' ' && c != '\t') || c == 0x7f) return {400, "malformed request\n"};
  }
  if (r.get_header_value_count("Host") != 1) return {400, "one Host header expected\n"};
  if (!HostAllowed(r.get_header_value("Host"), p))
    return {421, "not served under this host name\n"};
  if (f.transfer_encoding) return {501, "no Transfer-Encoding is accepted; send Content-Length\n"};
  if (f.bad_length) return {400, "bad Content-Length\n"};
  const bool control = r.method == "POST" && !p.controls.empty() &&
                       r.path.compare(0, p.controls.size(), p.controls) == 0;
  // Decided from the announced length, before a byte of the body is read.
  if (f.body > (control ? p.max_body : 0))
    return {413, control ? "a control's body is limited to " + Size(p.max_body) + "\n"
                         : "this request takes no body\n"};
  if (control) {
    if (const char* why = ControlRefusal(r, p)) return {403, why};
  } else if (r.method != "GET" && r.method != "HEAD") {
    return {405,
            p.controls.empty() ? "only GET and HEAD\n" : "only GET, HEAD, and POST for controls\n"};
  }
  return {};
}

bool WantsClose(const httplib::Request& r) {
  const std::string connection = Lower(r.get_header_value("Connection"));
  return connection.find("close") != std::string::npos ||
         (r.version == "HTTP/1.0" && connection.find("keep-alive") == std::string::npos);
}

}  // namespace tarn_web
