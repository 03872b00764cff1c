#include "sim_core.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>

#include "msg/codec.h"
#include "msg/frame.h"

namespace tarn_sim {

const char* const kServerId = "SV-0";
const char* const kRobotId = "R-0";
const char* const kClientId = "T-0";

namespace {

constexpr double kPi = 3.14159265358979323846;
// Closer than this to a way-point counts as being on it (mm). Small, since
// the last stretch is crawled at the end of braking: 0.5 mm would cut 35 ms
// off a stop at 800 mm/s^2.
constexpr double kArriveMm = 1e-3;
// Heading error below which the robot drives instead of turning (rad).
constexpr double kFacingTolerance = 1e-6;
// Largest coordinate accepted (mm): beyond it the report's fixed-point text
// would no longer be a short number, and no site is 10,000 km wide.
constexpr double kMaxCoordinateMm = 1e10;
// Integration step the caller should wake at while the robot moves (s).
constexpr double kMotionTick = 0.01;

bool CoordinateOk(double mm) {
  return std::isfinite(mm) && std::fabs(mm) <= kMaxCoordinateMm;
}

// Normalises an angle into (-pi, pi].
double Wrap(double a) {
  a = std::remainder(a, 2 * kPi);
  if (a <= -kPi) a += 2 * kPi;
  return a;
}

// Parses a whole text as one finite number (blanks around it allowed).
bool ParseNumber(const std::string& text, double& out) {
  const char* begin = text.c_str();
  char* end = nullptr;
  double v = std::strtod(begin, &end);
  if (end == begin) return false;
  while (*end == ' ' || *end == '\t') ++end;
  // A NUL before the string's end means embedded bytes that are not a number.
  if (static_cast<std::size_t>(end - begin) != text.size() || !std::isfinite(v)) return false;
  out = v;
  return true;
}

// Rounds tiny magnitudes to zero so that the report never shows "-0.000".
double Clean(double v, double resolution) {
  return std::fabs(v) < resolution / 2 ? 0.0 : v;
}

std::string Escape(const std::string& text) {
  constexpr std::size_t kMaxShown = 80;
  std::string out;
  std::size_t n = std::min(text.size(), kMaxShown);
  for (std::size_t i = 0; i < n; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    }
  }
  if (text.size() > n) out += "...(+" + std::to_string(text.size() - n) + " bytes)";
  return out;
}

}  // namespace

RobotSim::RobotSim(SimConfig config)
    : cfg_(config),
      speed_limit_(config.speed_limit),
      accel_limit_(config.accel_limit),
      voltage_(config.voltage_full) {}

int RobotSim::task_state() const {
  if (error_ != 0) return error_;
  return busy() ? kWorking : kFree;
}

Message_RTS RobotSim::StatusReport() const {
  char text[160];
  std::snprintf(text, sizeof text, "%.2f %.3f %.3f %d %.4f %.1f %.1f", voltage_,
                Clean(x_mm_ / 1000.0, 1e-3), Clean(y_mm_ / 1000.0, 1e-3), task_state(),
                Clean(heading_, 1e-4), Clean(velocity_, 0.1), Clean(accel_, 0.1));
  Message_RTS m;
  m.sender_id = kRobotId;
  m.receiver_id = client_;
  m.key = KEY_DETAIL;
  m.text_param1 = text;
  m.text_param2 = kRobotId;
  m.text_param3 = online_ ? "online" : "offline";
  return m;
}

Message_RTS RobotSim::FromServer(RTS_key key) const {
  Message_RTS m;
  m.sender_id = kServerId;
  m.receiver_id = client_;
  m.key = key;
  return m;
}

Message_RTS RobotSim::Progress(const std::string& what, int count, const std::string& code) const {
  Message_RTS m;
  m.sender_id = kRobotId;
  m.receiver_id = client_;
  m.key = KEY_ACTION;
  m.int_param = count;
  m.text_param1 = what;
  // The way-point's label, for whoever reads a capture; the client ignores it.
  if (!code.empty()) m.text_param2 = code;
  return m;
}

void RobotSim::FlushClosures(std::vector<Message_RTS>& out) {
  for (; pending_closures_ > 0; --pending_closures_) out.push_back(Progress("action", 0, ""));
}

void RobotSim::StopAll(std::vector<Message_RTS>& out) {
  // Every cancelled action is closed, oldest first, so that the client's list
  // of running actions empties along with the robot's.
  for (const Run& run : runs_)
    if (run.reported) out.push_back(Progress("action", 0, ""));
  runs_.clear();
  FlushClosures(out);
  turning_ = false;
  velocity_ = 0;
  accel_ = 0;
}

void RobotSim::SetError(int code) {
  error_ = code;
  error_until_ = time_ + cfg_.error_hold;
}

void RobotSim::Refuse(int code, std::size_t actions, std::vector<Message_RTS>& out) {
  SetError(code);
  pending_closures_ += static_cast<int>(actions);
  if (runs_.empty()) FlushClosures(out);
  out.push_back(StatusReport());
}

void RobotSim::ClearErrorIfDue(std::vector<Message_RTS>& out) {
  if (error_ == 0 || busy() || time_ + 1e-9 < error_until_) return;
  error_ = 0;
  out.push_back(StatusReport());
}

std::vector<Message_RTS> RobotSim::Inject(int code) {
  std::vector<Message_RTS> out;
  Refuse(code, 0, out);
  return out;
}

void RobotSim::ClientLeft() {
  for (Run& run : runs_) run.reported = false;
  pending_closures_ = 0;
  registered_ = false;
  error_ = 0;
  client_ = kClientId;
}

double RobotSim::NextEventIn() const {
  double next = std::numeric_limits<double>::infinity();
  if (busy()) next = kMotionTick;
  if (registered_ && cfg_.report_rate_hz > 0) next = std::min(next, next_report_ - time_);
  // A held error clears only at rest: while the robot moves, the end of its
  // hold changes nothing, and counting it would make every moment after it
  // due at once. The motion step that ends the move clears the error.
  if (error_ != 0 && !busy()) next = std::min(next, error_until_ - time_);
  return std::max(next, 0.0);
}

std::vector<Message_RTS> RobotSim::Receive(const Message_RTS& in, std::uint32_t announced) {
  std::vector<Message_RTS> out;
  switch (in.key) {
    case KEY_CONNECT:
      registered_ = true;
      if (!in.sender_id.empty()) client_ = in.sender_id;
      next_report_ = time_;
      break;

    case KEY_INIT: {
      double x = 0, y = 0, h = 0;
      if (!ParseNumber(in.text_param1, x) || !ParseNumber(in.text_param2, y) ||
          !ParseNumber(in.text_param3, h) || !CoordinateOk(x * 1000.0) ||
          !CoordinateOk(y * 1000.0)) {
        Refuse(kBadParameter, 0, out);
        break;
      }
      StopAll(out);
      // The third number is unscaled; a ground robot has no height, so it is
      // the initial heading in radians.
      x_mm_ = x * 1000.0;
      y_mm_ = y * 1000.0;
      heading_ = Wrap(h);
      online_ = true;
      error_ = 0;
      route_.clear();
      route_next_ = 0;
      // The report goes first: the client applies everything that arrived in
      // one service step, and a report that lags behind its acknowledgement
      // would show the old pose for a step after `online` turned true.
      out.push_back(StatusReport());
      out.push_back(FromServer(KEY_INIT));
      break;
    }

    case KEY_KILL:
      StopAll(out);
      online_ = false;
      error_ = 0;
      out.push_back(StatusReport());
      out.push_back(FromServer(KEY_KILL));
      break;

    case KEY_SET_PARAM:
      if (in.int_param > 0 && in.text_param1 == "Speed") {
        speed_limit_ = in.int_param;
        error_ = 0;
      } else if (in.int_param > 0 && in.text_param1 == "Acceleration") {
        accel_limit_ = in.int_param;
        error_ = 0;
      } else {
        Refuse(kBadParameter, 0, out);
      }
      break;

    case KEY_ORIENTATION: {
      std::istringstream text(in.text_param1);
      std::string tag;
      std::string value;
      double r = 0;
      if (!online_) {
        Refuse(kNotOnline, 0, out);
      } else if (busy()) {
        Refuse(kBusy, 0, out);
      } else if (!(text >> tag >> value) || tag != "r" || !ParseNumber(value, r)) {
        Refuse(kBadParameter, 0, out);
      } else {
        error_ = 0;
        turning_ = true;
        turn_target_ = Wrap(r);
        out.push_back(StatusReport());
      }
      break;
    }

    case KEY_ACTION: {
      const std::size_t n = in.actions.size();
      if (n > kMaxActions || announced > kMaxActions) {
        Refuse(kBadParameter, 0, out);
        break;
      }
      if (!online_) {
        Refuse(kNotOnline, n, out);
        break;
      }
      if (busy()) {
        Refuse(kBusy, n, out);
        break;
      }
      int problem = 0;
      std::deque<Run> accepted;
      std::vector<RoutePoint> route;
      for (const Action_RTS& a : in.actions) {
        if (a.type != 1) {
          problem = kUnsupported;
          break;
        }
        Run run;
        for (const QrInfo_RTS& q : a.path) {
          const double x = q.x * 1000.0, y = q.y * 1000.0;
          if (!CoordinateOk(x) || !CoordinateOk(y)) problem = kBadParameter;
          run.path.push_back(Point{q.qr_code, x, y});
          route.push_back(RoutePoint{q.qr_code, q.x, q.y, false});
        }
        accepted.push_back(std::move(run));
      }
      if (problem != 0) {
        Refuse(problem, n, out);
        break;
      }
      error_ = 0;
      for (Run& run : accepted) runs_.push_back(std::move(run));
      route_ = std::move(route);
      route_next_ = 0;
      out.push_back(StatusReport());
      break;
    }

    case KEY_GET_DETAIL:
      out.push_back(StatusReport());
      break;

    default:
      break;  // not for this robot: ignored
  }
  return out;
}

std::vector<Message_RTS> RobotSim::Advance(double seconds) {
  std::vector<Message_RTS> out;
  while (seconds > 1e-12) {
    double h = std::min(seconds, cfg_.step);
    Step(h, out);
    seconds -= h;
  }
  return out;
}

void RobotSim::Step(double h, std::vector<Message_RTS>& out) {
  if (turning_) {
    velocity_ = 0;
    accel_ = 0;
    double diff = Wrap(turn_target_ - heading_);
    double max_turn = cfg_.turn_rate * h;
    if (std::fabs(diff) <= max_turn) {
      heading_ = turn_target_;
      turning_ = false;
      Finished(out);
    } else {
      heading_ = Wrap(heading_ + std::copysign(max_turn, diff));
    }
  } else if (!runs_.empty()) {
    DriveStep(h, out);
  } else {
    velocity_ = 0;
    accel_ = 0;
  }
  ClearErrorIfDue(out);

  double drain = cfg_.drain_idle + cfg_.drain_per_mps * velocity_ / 1000.0;
  voltage_ = std::max(cfg_.voltage_empty, voltage_ - drain * h);
  time_ += h;

  if (registered_ && cfg_.report_rate_hz > 0 && time_ + 1e-9 >= next_report_) {
    out.push_back(StatusReport());
    const double period = 1.0 / cfg_.report_rate_hz;
    next_report_ += period;
    if (next_report_ <= time_) next_report_ = time_ + period;
  }
}

void RobotSim::DriveStep(double h, std::vector<Message_RTS>& out) {
  Run& run = runs_.front();
  if (run.path.empty()) {
    // Nothing to drive: the action is done as soon as it starts.
    if (run.reported) out.push_back(Progress("action", 0, ""));
    runs_.pop_front();
    if (runs_.empty()) Finished(out);
    return;
  }
  const Point& p = run.path.front();
  const double dx = p.x_mm - x_mm_;
  const double dy = p.y_mm - y_mm_;
  const double d = std::hypot(dx, dy);
  if (d < kArriveMm) {
    Arrive(out);
    return;
  }
  const double bearing = std::atan2(dy, dx);

  // The robot stops on every way-point and turns on the spot towards the
  // next one before it drives off.
  if (velocity_ == 0) {
    double diff = Wrap(bearing - heading_);
    if (std::fabs(diff) > kFacingTolerance) {
      accel_ = 0;
      double max_turn = cfg_.turn_rate * h;
      heading_ =
          std::fabs(diff) <= max_turn ? bearing : Wrap(heading_ + std::copysign(max_turn, diff));
      return;
    }
  }

  // Trapezoidal profile: accelerate up to the speed limit, but never end a
  // step faster than the speed from which braking at the acceleration limit
  // still stops on the way-point after this step's own travel. Solving
  // v1^2 = 2a(d - (v0 + v1)h/2) for v1 gives that bound.
  const double a = accel_limit_;
  const double v0 = velocity_;
  const double rest = d - v0 * h / 2;
  const double stoppable = rest <= 0 ? 0.0 : (-a * h + std::sqrt(a * a * h * h + 8 * a * rest)) / 2;
  double v1 = std::min({speed_limit_, v0 + a * h, stoppable});
  v1 = std::max({v1, v0 - a * h, 0.0});
  const double move = 0.5 * (v0 + v1) * h;
  accel_ = (v1 - v0) / h;
  velocity_ = v1;
  heading_ = bearing;
  if (move >= d) {
    Arrive(out);
  } else {
    x_mm_ += dx / d * move;
    y_mm_ += dy / d * move;
  }
}

void RobotSim::Arrive(std::vector<Message_RTS>& out) {
  Run& run = runs_.front();
  const Point p = run.path.front();
  run.path.pop_front();
  x_mm_ = p.x_mm;
  y_mm_ = p.y_mm;
  velocity_ = 0;
  accel_ = 0;
  if (route_next_ < route_.size()) route_[route_next_++].passed = true;
  if (run.reported) out.push_back(Progress("path", 1, p.code));
  if (run.path.empty()) {
    if (run.reported) out.push_back(Progress("action", 0, ""));
    runs_.pop_front();
    if (runs_.empty()) Finished(out);
  }
}

void RobotSim::Finished(std::vector<Message_RTS>& out) {
  FlushClosures(out);
  if (error_ != 0 && time_ + 1e-9 >= error_until_) error_ = 0;
  out.push_back(StatusReport());
}

std::string KeyName(RTS_key key) {
  switch (key) {
    case KEY_NONE:
      return "KEY_NONE";
    case KEY_CONNECT:
      return "KEY_CONNECT";
    case KEY_INIT:
      return "KEY_INIT";
    case KEY_KILL:
      return "KEY_KILL";
    case KEY_ORIENTATION:
      return "KEY_ORIENTATION";
    case KEY_ACTION:
      return "KEY_ACTION";
    case KEY_GET_DETAIL:
      return "KEY_GET_DETAIL";
    case KEY_DETAIL:
      return "KEY_DETAIL";
    case KEY_SET_PARAM:
      return "KEY_SET_PARAM";
  }
  return "KEY_" + std::to_string(static_cast<int>(key));
}

std::string Describe(const Message_RTS& m) {
  std::ostringstream s;
  s << Escape(m.sender_id) << " -> " << Escape(m.receiver_id) << ' ' << KeyName(m.key)
    << " int=" << m.int_param << " \"" << Escape(m.text_param1) << "\" \"" << Escape(m.text_param2)
    << "\" \"" << Escape(m.text_param3) << '"';
  if (!m.actions.empty()) {
    constexpr std::size_t kMaxPoints = 8;
    s << " actions=" << m.actions.size();
    constexpr std::size_t kMaxShownActions = 4;
    std::size_t shown_actions = 0;
    for (const Action_RTS& a : m.actions) {
      if (shown_actions++ == kMaxShownActions) {
        s << " ...";
        break;
      }
      s << " [type " << a.type << ", " << a.path.size() << " pts:";
      std::size_t shown = 0;
      for (const QrInfo_RTS& q : a.path) {
        if (shown++ == kMaxPoints) {
          s << " ...";
          break;
        }
        s << ' ' << Escape(q.qr_code) << '(' << q.x << ',' << q.y << ')';
      }
      s << ']';
    }
  }
  return s.str();
}

}  // namespace tarn_sim

namespace tarn_sim {

Screen ScreenFrame(std::string& buffer, std::uint32_t& announced) {
  announced = 0;
  auto word = [&](std::size_t at) { return get_word(buffer.data() + at); };
  if (buffer.size() < frame_header_size || buffer[0] != header) return Screen::kPass;
  const std::size_t end = frame_header_size + std::size_t{word(5)};  // the terminator's index
  if (static_cast<std::int32_t>(word(1)) != frame_type || end >= buffer.size() ||
      buffer[end] != ender)
    return Screen::kPass;
  std::size_t at = frame_header_size + 4;  // behind head_word
  for (int field = 0; field < 6; ++field) {
    if (at + 4 > end) return Screen::kPass;  // short body: read leniently
    if (field == 2) {                        // the key between the ids and the texts
      at += 4;
      continue;
    }
    const std::int32_t length = static_cast<std::int32_t>(word(at));
    if (length < 0 || std::size_t(length) > end - at - 4) return Screen::kDiscard;
    at += 4 + std::size_t(length);
  }
  at += 4 + 1;  // int_param, '%'
  if (at + 4 > end) return Screen::kPass;
  const std::uint32_t count = word(at);
  if (count > kMaxActions) {
    announced = count;
    std::memset(&buffer[at], 0, 4);
  }
  return Screen::kPass;
}

}  // namespace tarn_sim
