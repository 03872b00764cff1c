// tarn-fleet-view: every VDA 5050 vehicle on a broker, on one map in a
// browser. One poll() loop serves the broker's connection (libmosquitto,
// driven by hand) and the page's HTTP connections (the guarded server); the
// model (fleet.h) is only ever touched by this thread.

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "fleet.h"
#include "guarded_server.h"
#include "tools/common/broker.h"
#include "tools/common/exit_status.h"

namespace {

using namespace tarn_tools;
using Clock = std::chrono::steady_clock;

// The page is sent a new snapshot at most this often: with a hundred
// vehicles each reporting ten times a second, one per message would be a
// thousand a second, for every open page.
constexpr auto kPublishPeriod = std::chrono::milliseconds(100);

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) {
  g_stop = 1;
}

void Usage(std::ostream& out) {
  out << "Usage: tarn-fleet-view [options]\n"
         "\n"
         "Shows every VDA 5050 vehicle on an MQTT broker on one map, in a browser:\n"
         "pose and heading, the order's remaining nodes and edges, the connection\n"
         "state and errors. Reads <interface>/v2/+/+/connection, state,\n"
         "visualization and factsheet; publishes nothing.\n"
         "\n"
      << kBrokerHelp
      << "  --interface NAME      first topic level (default uagv)\n"
         "  --http-address A      IPv4 address of the page (default 127.0.0.1). Any other\n"
         "                        than loopback shows the fleet to whoever reaches it\n"
         "  --http-port N         port of the page (default 6870; 0: any free one)\n"
         "  --http-host NAME      a further host name the page answers to (repeatable);\n"
         "                        it answers to its address, localhost, 127.0.0.1, [::1]\n"
         "  --max-vehicles N      vehicles shown at most (default 500)\n"
         "  --max-message BYTES   larger messages are not taken (default 262144)\n"
         "  --offline-keep S      an OFFLINE vehicle stays shown S seconds (default 10)\n"
         "  --broken-keep S       a CONNECTIONBROKEN one, S seconds (default 600)\n"
         "\n"
         "A vehicle appears with its first message and vanishes when its keep time\n"
         "after OFFLINE or CONNECTIONBROKEN is over (see docs/vda5050.md). The page\n"
         "is / ; /state is the whole fleet as JSON, /events the same as server-sent\n"
         "events. Stop it with Ctrl-C (SIGINT) or SIGTERM.\n"
         "\n"
      << kExitStatusHelp;
}

struct Options {
  BrokerOptions broker;
  std::string interface_name = "uagv";
  tarn_web::GuardedServer::Options http;
  fleet::Limits limits;
};

bool Number(const char* text, double& out, double low, double high) {
  char* end = nullptr;
  out = std::strtod(text, &end);
  return end != text && *end == '\0' && std::isfinite(out) && out >= low && out <= high;
}

// Fills options; returns false with a message on standard error.
bool Parse(int argc, char** argv, Options& o) {
  o.http.port = 6870;
  std::unordered_map<std::string, std::string*> texts{{"--interface", &o.interface_name},
                                                      {"--http-address", &o.http.address}};
  o.broker.AddTo(texts);
  struct Bounded {
    double low, high;
    bool whole;
    std::function<void(double)> set;
  };
  std::unordered_map<std::string, Bounded> numbers{
      {"--port", {1, 65535, true, [&](double v) { o.broker.port = static_cast<int>(v); }}},
      {"--http-port", {0, 65535, true, [&](double v) { o.http.port = static_cast<int>(v); }}},
      {"--max-vehicles",
       {1, 100000, true, [&](double v) { o.limits.max_vehicles = static_cast<std::size_t>(v); }}},
      {"--max-message",
       {1024, 64 << 20, true,
        [&](double v) { o.limits.max_payload = static_cast<std::size_t>(v); }}},
      {"--offline-keep", {0, 86400, false, [&](double v) { o.limits.offline_keep = v; }}},
      {"--broken-keep", {0, 864000, false, [&](double v) { o.limits.broken_keep = v; }}}};
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool value = i + 1 < argc;
    if (texts.count(arg) && value) {
      *texts[arg] = argv[++i];
    } else if (arg == "--http-host" && value) {
      o.http.names.push_back(argv[++i]);
    } else if (numbers.count(arg) && value) {
      const Bounded& b = numbers[arg];
      double v = 0;
      if (!Number(argv[++i], v, b.low, b.high) || (b.whole && v != std::floor(v))) {
        std::cerr << "tarn-fleet-view: " << arg << " needs a" << (b.whole ? " whole" : "")
                  << " number from " << b.low << " to " << b.high << "\n";
        return false;
      }
      b.set(v);
    } else {
      std::cerr << "tarn-fleet-view: unknown or incomplete option '" << arg << "'\n";
      return false;
    }
  }
  if (o.interface_name.empty() || o.interface_name.find_first_of("/#+") != std::string::npos) {
    std::cerr << "tarn-fleet-view: '" << o.interface_name << "' cannot be a topic level\n";
    return false;
  }
  return true;
}

struct Mqtt {
  mosquitto* mosq = nullptr;
  fleet::Fleet* fleet = nullptr;
  Clock::time_point start = Clock::now();
  bool connected = false;
  bool refused = false;
};

double Seconds(const Mqtt& m) {
  return std::chrono::duration<double>(Clock::now() - m.start).count();
}

int Run(const Options& o) {
  fleet::Fleet fleet(o.interface_name, o.limits);
  Mqtt m;
  m.fleet = &fleet;

  // The page: its files, the whole fleet at /state, and the same as events.
  // The snapshot is encoded once per change, when first asked for.
  tarn_web::GuardedServer http;
  unsigned long encoded = ~0ul, published = ~0ul;
  std::shared_ptr<const std::string> json, event;
  const auto snapshot = [&] {
    if (encoded != fleet.seq()) {
      encoded = fleet.seq();
      json = std::make_shared<const std::string>(fleet.Snapshot());
      event = std::make_shared<const std::string>("event: fleet\ndata: " + *json + "\n\n");
    }
  };
  http.Get("/state", [&](const httplib::Request&, httplib::Response& res) {
    snapshot();
    res.set_content(*json, "application/json");
  });
  http.Events(
      "/events",
      [&] {
        snapshot();
        return event;
      },
      "too many pages open\n");
  http.Pages(tarn_web::FindAsset);
  std::string error;
  if (!http.Listen(o.http, error)) {
    std::cerr << "tarn-fleet-view: page: " << error << "\n";
    return kFailure;
  }

  mosquitto_lib_init();
  const std::unique_ptr<mosquitto, void (*)(mosquitto*)> owner(mosquitto_new(nullptr, true, &m),
                                                               [](mosquitto* p) {
                                                                 mosquitto_destroy(p);
                                                                 mosquitto_lib_cleanup();
                                                               });
  m.mosq = owner.get();
  if (m.mosq == nullptr) throw std::bad_alloc();
  // MQTT 5, so that the broker is told the largest packet this client takes:
  // it drops larger messages instead of handing them to libmosquitto, which
  // would hold each whole in memory before the size could be checked here.
  mosquitto_int_option(m.mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_connect_callback_set(m.mosq, [](mosquitto* mosq, void* data, int rc) {
    Mqtt& m = *static_cast<Mqtt*>(data);
    if (rc != 0) {
      std::cerr << "tarn-fleet-view: broker refused the connection: " << mosquitto_reason_string(rc)
                << "\n";
      m.refused = true;
      return;
    }
    m.connected = true;
    m.fleet->Broker(true);
    // One subscription after the other, the connection topic first: a
    // broker hands over each one's retained messages in that order.
    for (const std::string& filter : m.fleet->Subscriptions())
      mosquitto_subscribe(mosq, nullptr, filter.c_str(), 1);
  });
  mosquitto_message_callback_set(m.mosq, [](mosquitto*, void* data, const mosquitto_message* msg) {
    Mqtt& m = *static_cast<Mqtt*>(data);
    const std::string payload =
        msg->payloadlen > 0 ? std::string(static_cast<const char*>(msg->payload), msg->payloadlen)
                            : std::string();
    m.fleet->Message(msg->topic, payload, msg->retain, Seconds(m));
  });
  mosquitto_property* properties = nullptr;
  // The payload, and room for a topic and the properties of a publication.
  mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE,
                               static_cast<std::uint32_t>(o.limits.max_payload + 4096));
  BrokerLink link(m.mosq, "tarn-fleet-view");
  const int opened = link.Open(o.broker, 15, properties);
  mosquitto_property_free_all(&properties);
  if (opened != kOk) return opened;

  if (!tarn_web::IsLoopback(o.http.address))
    std::cerr << "tarn-fleet-view: warning: the page listens on " << o.http.address
              << ", beyond loopback: whoever reaches it sees the fleet\n";
  std::cout << "fleet view: http://"
            << (o.http.address == "0.0.0.0" ? std::string("127.0.0.1") : o.http.address) << ":"
            << http.port() << "/" << std::endl;

  std::vector<pollfd> fds;
  Clock::time_point next_publish = Clock::now();
  while (!g_stop && !m.refused) {
    const Clock::time_point now = Clock::now();
    if (Seconds(m) >= fleet.NextExpiry()) fleet.Expire(Seconds(m));
    // The newest snapshot to the open pages, at most once a period.
    if (http.streams() > 0 && published != fleet.seq() && now >= next_publish) {
      snapshot();
      http.Broadcast(event);
      published = fleet.seq();
      next_publish = now + kPublishPeriod;
    }

    fds.assign(1, link.Entry());
    Clock::time_point wake = now + std::chrono::seconds(1);  // libmosquitto's keep-alive
    if (http.streams() > 0 && published != fleet.seq()) wake = std::min(wake, next_publish);
    const double expiry = fleet.NextExpiry() - Seconds(m);
    if (expiry < 1)
      wake = std::min(wake, now + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(expiry)));
    http.Prepare(fds, wake);
    if (poll(fds.data(), fds.size(), tarn_web::PollTimeout(wake)) < 0 && errno != EINTR) break;

    if (link.Service(fds[0].revents, m.connected)) {
      m.connected = false;
      fleet.Broker(false);
    }
    http.Service(fds.data() + 1);
  }
  if (m.connected) link.Close(std::chrono::milliseconds(0));
  return m.refused ? kBroker : kOk;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)
      return Usage(std::cout), kOk;
  if (!Parse(argc, argv, options)) return Usage(std::cerr), kUsage;
  // No SA_RESTART: a signal interrupts poll() so the loop stops at once.
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
  try {
    return Run(options);
  } catch (const std::exception& e) {
    std::cerr << "tarn-fleet-view: " << e.what() << "\n";
    return kFailure;
  }
}
