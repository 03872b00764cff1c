// tarn-vda5050: one robot behind this SDK as a VDA 5050 vehicle on an MQTT
// broker. One poll() loop serves both connections: the broker's (libmosquitto,
// driven by hand) and the control server's (tarn::Events, which hands every
// message the robot sends to the bridge once, in bounded steps).

#include <mosquitto.h>
#include <poll.h>
#include <signal.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <unordered_map>

#include "bridge.h"
#include "robot/events.h"
#include "tarn_config.h"
#include "tools/common/broker.h"
#include "tools/common/exit_status.h"

namespace {

using namespace tarn_tools;

// The library connects with a blocking socket; a server whose accept queue is
// full would otherwise hold the start for minutes.
constexpr std::chrono::seconds kConnectLimit{10};

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) {
  g_stop = 1;
}

using Clock = std::chrono::steady_clock;

std::string Now() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  const long ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm tm{};
  gmtime_r(&t, &tm);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
  return text;
}

void Usage(std::ostream& out) {
  out << "Usage: tarn-vda5050 --manufacturer M --serial S [options]\n"
         "\n"
         "Makes the robot behind the control server at " TARN_SERVER_ADDRESS
         " a VDA 5050 vehicle on an MQTT broker,\n"
         "under the topics <interface>/v2/<manufacturer>/<serial>/...\n"
         "\n"
      << kBrokerHelp
      << "  --interface NAME      first topic level (default uagv)\n"
         "  --map-id ID           the one map this robot knows (default map)\n"
         "  --viz-rate HZ         visualization messages per second, 0 for none (default 1)\n"
         "  --state-interval S    state at least every S seconds (default 30)\n"
         "  --battery V0 V1       voltages read as 0 % and 100 % charge (default 22.0 26.4)\n"
         "\n"
      << kExitStatusHelp;
}

// The bridge's commands, carried out with the library's Robot.
struct RobotCommands : vda::RobotPort {
  Robot& robot;
  explicit RobotCommands(Robot& r) : robot(r) {}
  bool Drive(const std::vector<std::array<float, 3>>& points) override {
    return tarn::set_path(robot, points);
  }
  bool Turn(float theta) override { return robot.SetOrientation(theta); }
  bool Speed(int v) override { return robot.SetVelocity(v); }
  void Init(float x, float y, float theta) override { robot.Init(x, y, theta); }
  void Detail() override { robot.GetDetial(); }
};

struct Options {
  vda::Config config;
  BrokerOptions broker;
  double viz_rate = 1, state_interval = 30;
};

bool Number(const char* text, double& out) {
  char* end = nullptr;
  out = std::strtod(text, &end);
  return end != text && *end == '\0' && std::isfinite(out);
}

// Fills options; returns false with a message on standard error.
bool Parse(int argc, char** argv, Options& o) {
  std::unordered_map<std::string, std::string*> texts{{"--interface", &o.config.interface_name},
                                                      {"--map-id", &o.config.map_id},
                                                      {"--manufacturer", &o.config.manufacturer},
                                                      {"--serial", &o.config.serial}};
  o.broker.AddTo(texts);
  std::unordered_map<std::string, double*> numbers{{"--viz-rate", &o.viz_rate},
                                                   {"--state-interval", &o.state_interval}};
  bool have_manufacturer = false, have_serial = false;
  double port = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool value = i + 1 < argc;
    if (texts.count(arg) && value) {
      *texts[arg] = argv[++i];
      have_manufacturer |= arg == "--manufacturer";
      have_serial |= arg == "--serial";
    } else if (numbers.count(arg) && value) {
      // Bounded so that the loop never spins: at most 100 messages a second.
      const bool viz = arg == "--viz-rate";
      double& v = *numbers[arg];
      if (!Number(argv[++i], v) || (viz ? v < 0 || v > 100 : v < 0.01)) {
        std::cerr << "tarn-vda5050: " << arg
                  << (viz ? " needs 0 to 100\n" : " needs at least 0.01\n");
        return false;
      }
    } else if (arg == "--port" && value) {
      if (!Number(argv[++i], port) || port < 1 || port > 65535 || port != std::floor(port)) {
        std::cerr << "tarn-vda5050: --port needs a number from 1 to 65535\n";
        return false;
      }
    } else if (arg == "--battery" && i + 2 < argc) {
      if (!Number(argv[i + 1], o.config.battery_empty_v) ||
          !Number(argv[i + 2], o.config.battery_full_v) ||
          o.config.battery_full_v <= o.config.battery_empty_v) {
        std::cerr << "tarn-vda5050: --battery needs two voltages, the lower first\n";
        return false;
      }
      i += 2;
    } else {
      std::cerr << "tarn-vda5050: unknown or incomplete option '" << arg << "'\n";
      return false;
    }
  }
  if (!have_manufacturer || !have_serial) {
    std::cerr << "tarn-vda5050: --manufacturer and --serial are required\n";
    return false;
  }
  // Topic levels must not contain the MQTT separators and wildcards.
  for (const std::string* level :
       {&o.config.interface_name, &o.config.manufacturer, &o.config.serial}) {
    if (level->empty() || level->find_first_of("/#+$") != std::string::npos) {
      std::cerr << "tarn-vda5050: '" << *level << "' cannot be a topic level\n";
      return false;
    }
  }
  o.broker.port = static_cast<int>(port);
  o.config.state_interval = o.state_interval;
  o.config.visualization_interval = o.viz_rate > 0 ? 1 / o.viz_rate : 0;
  return true;
}

struct Mqtt {
  mosquitto* mosq = nullptr;
  vda::Bridge* bridge = nullptr;
  bool connected = false;
  bool refused = false;
  int acknowledged = -1;  // the id of the last publication the broker acknowledged
};

// Returns the message id (0 when it could not be queued).
int Publish(Mqtt& m, const std::string& topic, const vda::Json& message, int qos, bool retain) {
  const std::string text = message.dump();
  int mid = 0;
  mosquitto_publish(m.mosq, &mid, topic.c_str(), static_cast<int>(text.size()), text.data(), qos,
                    retain);
  return mid;
}

int Run(const Options& o) {
  // The robot first: without the control server there is nothing to offer.
  const std::unique_ptr<Robot> robot = tarn::connect(kConnectLimit);
  if (!robot->connected) {
    std::cerr << "tarn-vda5050: control server " TARN_SERVER_ADDRESS " unreachable\n";
    return kUnreachable;
  }
  tarn::Events events(*robot);
  RobotCommands commands(*robot);
  vda::Bridge bridge(o.config, commands);
  Mqtt m;
  m.bridge = &bridge;

  mosquitto_lib_init();
  const std::string client_id = "tarn-vda5050-" + o.config.serial;
  m.mosq = mosquitto_new(client_id.c_str(), true, &m);
  if (m.mosq == nullptr) throw std::bad_alloc();
  // A state often follows another message within milliseconds (the state
  // after an instant action's RUNNING one, the echo of an order after a
  // visualization). With Nagle's algorithm on, such a small write waits for
  // the broker's delayed acknowledgement of the one before: about 40 ms.
  mosquitto_int_option(m.mosq, MOSQ_OPT_TCP_NODELAY, 1);
  const std::string will = bridge.Connection(Now(), "CONNECTIONBROKEN").dump();
  mosquitto_will_set(m.mosq, bridge.Topic("connection").c_str(), static_cast<int>(will.size()),
                     will.data(), 1, true);
  mosquitto_connect_callback_set(m.mosq, [](mosquitto* mosq, void* data, int rc) {
    Mqtt& m = *static_cast<Mqtt*>(data);
    if (rc != 0) {
      // Refused credentials or protocol: retrying will not help.
      std::cerr << "tarn-vda5050: broker refused the connection: " << mosquitto_connack_string(rc)
                << "\n";
      m.refused = true;
      return;
    }
    m.connected = true;
    for (const char* topic : {"order", "instantActions"})
      mosquitto_subscribe(mosq, nullptr, m.bridge->Topic(topic).c_str(), 0);
    Publish(m, m.bridge->Topic("connection"), m.bridge->Connection(Now(), "ONLINE"), 1, true);
    Publish(m, m.bridge->Topic("factsheet"), m.bridge->Factsheet(Now()), 0, true);
  });
  mosquitto_publish_callback_set(m.mosq, [](mosquitto*, void* data, int mid) {
    static_cast<Mqtt*>(data)->acknowledged = mid;
  });
  mosquitto_message_callback_set(m.mosq, [](mosquitto*, void* data, const mosquitto_message* msg) {
    Mqtt& m = *static_cast<Mqtt*>(data);
    const std::string payload(static_cast<const char*>(msg->payload), msg->payloadlen);
    const std::string topic = msg->topic;
    if (topic == m.bridge->Topic("order")) m.bridge->Order(payload);
    if (topic == m.bridge->Topic("instantActions")) m.bridge->InstantActions(payload);
  });
  // The standard asks for a heartbeat around 15 s, so that a vanished bridge
  // is declared CONNECTIONBROKEN soon.
  BrokerLink link(m.mosq, "tarn-vda5050");
  if (const int opened = link.Open(o.broker, 15); opened != kOk) {
    mosquitto_destroy(m.mosq);
    mosquitto_lib_cleanup();
    return opened;
  }

  const auto viz_period = std::chrono::duration<double>(o.viz_rate > 0 ? 1 / o.viz_rate : 0);
  const auto state_period = std::chrono::duration<double>(o.state_interval);
  Clock::time_point next_viz = Clock::now(), next_state = Clock::now();
  int exit_code = kOk;
  for (;;) {
    // Sends what the bridge queued last time round and hands it what the
    // robot said, each message once; a step is bounded, and backlog() says
    // when frames already received wait for the next one.
    events.step([&](const tarn::Event& e) { bridge.OnEvent(e); });
    if (events.lost()) exit_code = kLost;
    if (events.unreadable()) exit_code = kUnreadable;

    const Clock::time_point now = Clock::now();
    if (m.connected) {
      if (bridge.TakeStateDue() || now >= next_state) {
        Publish(m, bridge.Topic("state"), bridge.State(Now()), 0, false);
        next_state = now + std::chrono::duration_cast<Clock::duration>(state_period);
      }
      if (bridge.TakeFactsheetDue())
        Publish(m, bridge.Topic("factsheet"), bridge.Factsheet(Now()), 0, true);
      if (o.viz_rate > 0 && now >= next_viz) {
        Publish(m, bridge.Topic("visualization"), bridge.Visualization(Now()), 0, false);
        next_viz = now + std::chrono::duration_cast<Clock::duration>(viz_period);
      }
    }
    if (m.refused) exit_code = kBroker;
    if (g_stop || exit_code != kOk) break;

    // Wait for either connection, or the next periodic message. What the
    // bridge queued just now goes out as soon as the connection takes it.
    pollfd fds[2] = {link.Entry(), events.poll_entry()};
    Clock::time_point wake = std::min(next_state, now + std::chrono::seconds(1));
    if (o.viz_rate > 0) wake = std::min(wake, next_viz);
    if (events.backlog()) wake = now;
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(wake - now).count();
    poll(fds, 2, static_cast<int>(std::max<long long>(0, wait)));
    // The robot keeps driving its order while the broker is away.
    if (link.Service(fds[0].revents, m.connected)) m.connected = false;
  }

  // Orderly stop: the retained connection state says why the vehicle left.
  // A lost control server is CONNECTIONBROKEN, the state sent just before
  // carries the fatal error.
  if (m.connected) {
    const int last = Publish(
        m, bridge.Topic("connection"),
        bridge.Connection(Now(), exit_code == kOk ? "OFFLINE" : "CONNECTIONBROKEN"), 1, true);
    link.Close(std::chrono::seconds(2), [&] { return m.acknowledged == last; });
  }
  mosquitto_destroy(m.mosq);
  mosquitto_lib_cleanup();
  if (exit_code == kLost) std::cerr << "tarn-vda5050: control server connection lost\n";
  if (exit_code == kUnreadable)
    std::cerr << "tarn-vda5050: unreadable data from the control server\n";
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)
      return Usage(std::cout), 0;
  if (!Parse(argc, argv, options)) return Usage(std::cerr), kUsage;
  // No SA_RESTART: a signal interrupts poll() so the loop stops at once.
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  try {
    return Run(options);
  } catch (const std::exception& e) {
    // Nothing the peers send should get here (the event layer screens the
    // robot's frames, the bridge core the JSON); say what did.
    std::cerr << "tarn-vda5050: " << e.what() << "\n";
    return kFailure;
  }
}
