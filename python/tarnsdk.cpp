// Python bindings of TarnSDK: the Robot client and its event layer, the
// message records, their codec and a frame builder for scripting peers.
//
// Texts on the wire are raw bytes with no encoding of their own. They surface
// in Python as str decoded as UTF-8 with "surrogateescape", so that any byte
// sequence (NUL, invalid UTF-8) survives a read-modify-write unchanged; a text
// field also accepts bytes on assignment.

#include <pybind11/operators.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "msg/frame.h"
#include "msg/msg.h"
#include "robot/events.h"
#include "robot/robot.h"

namespace py = pybind11;

namespace {

py::str to_py_text(const std::string& s) {
  PyObject* o =
      PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "surrogateescape");
  if (o == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(o);
}

std::string from_py_text(const py::object& value) {
  if (py::isinstance<py::bytes>(value)) return value.cast<std::string>();
  if (!py::isinstance<py::str>(value)) throw py::type_error("expected str or bytes");
  PyObject* b = PyUnicode_AsEncodedString(value.ptr(), "utf-8", "surrogateescape");
  if (b == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::bytes>(b).cast<std::string>();
}

template <typename Class, typename Record>
void text_field(Class& cls, const char* name, std::string Record::*member, const char* doc) {
  cls.def_property(
      name, [member](const Record& r) { return to_py_text(r.*member); },
      [member](Record& r, const py::object& v) { r.*member = from_py_text(v); }, doc);
}

// The library's own frame writer, so that scripts build the very bytes that
// send_msg writes.
py::bytes frame_body(const std::string& body) {
  return py::bytes(make_frame(body));
}

// A Ctrl-C that comes just before a wait begins only sets Python's flag; no
// wait is longer than this, so it is noticed within this time all the same.
constexpr std::chrono::milliseconds kSignalCheck(100);

std::chrono::milliseconds to_ms(double seconds) {
  return std::chrono::milliseconds(static_cast<long long>(std::ceil(std::max(seconds, 0.0) * 1e3)));
}

void check_signals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

// The event layer as Python sees it. A `for event in events.serve(...)` loop
// that is broken off leaves the rest of its step's events here, for the next
// serve() or step(): each event is handed over once.
class PyEvents {
 public:
  using Clock = tarn::Events::Clock;

  explicit PyEvents(Robot& robot) : events_(robot) {}
  tarn::Events& layer() { return events_; }

  // What waits, then one step's events.
  std::vector<tarn::Event> step() {
    std::vector<tarn::Event> out(pending_.begin(), pending_.end());
    pending_.clear();
    events_.step([&](const tarn::Event& e) { out.push_back(e); });
    return out;
  }

  // The next event, stepping the connection as needed and sleeping in poll()
  // between steps with the GIL released. False once `deadline` has passed,
  // or nothing more can happen (the connection lost or unreadable, with
  // nothing to send).
  bool next(Clock::time_point deadline, tarn::Event& out) {
    for (bool stepped = false; pending_.empty(); stepped = true) {
      const auto now = Clock::now();
      if (now >= deadline) return false;
      if (stepped) {
        if (events_.poll_entry().fd < 0 && !events_.backlog()) return false;
        {
          py::gil_scoped_release unlocked;
          events_.wait(
              std::min(std::chrono::ceil<std::chrono::milliseconds>(deadline - now), kSignalCheck));
        }
        check_signals();
      }
      events_.step([this](const tarn::Event& e) { pending_.push_back(e); });
    }
    if (Clock::now() >= deadline) return false;
    out = std::move(pending_.front());
    pending_.pop_front();
    return true;
  }

 private:
  tarn::Events events_;
  std::deque<tarn::Event> pending_;
};

// The iterator events.serve(timeout=S) returns.
struct EventStream {
  PyEvents& events;
  PyEvents::Clock::time_point deadline;

  tarn::Event next() {
    tarn::Event e;
    if (!events.next(deadline, e)) throw py::stop_iteration();
    return e;
  }
};

std::string repr_waypoint(const QrInfo_RTS& p) {
  std::ostringstream s;
  s << "QrInfo_RTS(" << py::repr(to_py_text(p.qr_code)).cast<std::string>() << ", x=" << p.x
    << ", y=" << p.y << ", z=" << p.z << ", space_type=" << static_cast<std::int32_t>(p.space_type)
    << ", flag=" << p.flag << ")";
  return s.str();
}

}  // namespace

PYBIND11_MODULE(tarnsdk, m) {
  m.doc() =
      "Client library for commanding a mobile robot through its control server (TCP port 6868).\n\n"
      "Create one Robot (tarnsdk.connect(timeout=S) bounds the connecting) and one\n"
      "Events(robot), then iterate over events.serve(timeout=S): each message the robot\n"
      "sends, once, as an Event. Commands only queue messages; the event layer moves the\n"
      "bytes. Every Robot of a process shares one connection, one mailbox and one list of\n"
      "running actions, and destroying any Robot tears them down: keep exactly one Robot\n"
      "alive at a time.";

  py::enum_<RTS_key>(m, "RTS_key", py::arithmetic(), "What a message asks or reports.")
      .value("KEY_NONE", KEY_NONE)
      .value("KEY_CONNECT", KEY_CONNECT)
      .value("KEY_INIT", KEY_INIT)
      .value("KEY_KILL", KEY_KILL)
      .value("KEY_ORIENTATION", KEY_ORIENTATION)
      .value("KEY_ACTION", KEY_ACTION)
      .value("KEY_GET_DETAIL", KEY_GET_DETAIL)
      .value("KEY_DETAIL", KEY_DETAIL)
      .value("KEY_SET_PARAM", KEY_SET_PARAM)
      .export_values();
  // Keys that arrive outside the table are kept as they are, so plain ints
  // must be assignable too.
  py::implicitly_convertible<py::int_, RTS_key>();

  py::enum_<Space_type>(m, "Space_type", py::arithmetic(),
                        "Kind of space at a way-point; any 32-bit value is carried unchanged.")
      .value("SPACE_DEFAULT", SPACE_DEFAULT)
      .export_values();
  py::implicitly_convertible<py::int_, Space_type>();

  py::class_<QrInfo_RTS> wp(m, "QrInfo_RTS", "One way-point, named by the label of its QR code.");
  wp.def(py::init<>(), "(\"N\", 0, 0, 0, SPACE_DEFAULT, -1)")
      .def(py::init<const std::string&, float, float, Space_type, int>(), py::arg("code"),
           py::arg("x"), py::arg("y"), py::arg("space_type") = SPACE_DEFAULT, py::arg("flag") = -1,
           "z is always 0: there is no argument for it.")
      .def_readwrite("x", &QrInfo_RTS::x)
      .def_readwrite("y", &QrInfo_RTS::y)
      .def_readwrite("z", &QrInfo_RTS::z)
      .def_readwrite("space_type", &QrInfo_RTS::space_type)
      .def_readwrite("flag", &QrInfo_RTS::flag)
      // Way-points compare by label alone; they are mutable, so not hashable.
      .def(py::self == py::self)
      .def(py::self != py::self)
      .def("__repr__", &repr_waypoint);
  text_field(
      wp, "qr_code", &QrInfo_RTS::qr_code,
      "Label; inside a path it travels as a 32-bit integer, so it should be a decimal number.");

  py::class_<QrInfo_ARC, QrInfo_RTS>(m, "QrInfo_ARC", "A way-point of an arc path.")
      .def(py::init<>())
      .def_readwrite("arc_param1", &QrInfo_ARC::arc_param1)
      .def_readwrite("arc_param2", &QrInfo_ARC::arc_param2)
      .def_readwrite("arc_param3", &QrInfo_ARC::arc_param3)
      .def_readwrite("arc_param4", &QrInfo_ARC::arc_param4);

  py::class_<Action_RTS> act(
      m, "Action_RTS",
      "One action: a type, a path, an arc path, a target and a text parameter.\n"
      "path and arc_path read as new lists: assign a whole list to change them.");
  act.def(py::init<int, const QrInfo_RTS&, std::string>(), py::arg("type"), py::arg("target"),
          py::arg("param"))
      .def(py::init<int, const QrInfo_RTS&, const std::deque<QrInfo_RTS>&>(), py::arg("type"),
           py::arg("target"), py::arg("path"))
      .def(py::init<int, const std::deque<QrInfo_RTS>&>(), py::arg("type"), py::arg("path"),
           "target is a copy of the path's last way-point (a default one for an empty path).")
      .def_readwrite("type", &Action_RTS::type)
      .def_readwrite("path", &Action_RTS::path)
      .def_readwrite("arc_path", &Action_RTS::arc_path)
      .def_readwrite("target", &Action_RTS::target)
      .def(
          "encode", [](const Action_RTS& a) { return py::bytes(a.str()); },
          "The action's binary body.")
      .def(
          "decode",
          [](Action_RTS& a, const py::bytes& data) {
            std::stringstream in(std::string(data),
                                 std::ios::in | std::ios::out | std::ios::binary);
            return a.decode(in);
          },
          py::arg("data"),
          "Reads one body into this action, appending to its paths. Lenient: always True; a\n"
          "negative text length raises ValueError.");
  text_field(act, "param", &Action_RTS::param, "Text parameter.");

  py::class_<Message_RTS> msg(m, "Message_RTS", "The envelope of every exchange.");
  msg.def(py::init<>(), "head_word 0, every text \"N\", key KEY_NONE, int_param 0, no actions.")
      .def_readwrite("head_word", &Message_RTS::head_word)
      .def_readwrite("key", &Message_RTS::key)
      .def_readwrite("int_param", &Message_RTS::int_param)
      .def_readwrite("actions", &Message_RTS::actions,
                     "Reads as a new list: assign a whole list to change it.")
      .def_readwrite("local_flag", &Message_RTS::local_flag)
      .def(
          "encode", [](Message_RTS& r) { return py::bytes(r.str()); },
          "The message body as it travels inside a frame.")
      .def(
          "decode",
          [](Message_RTS& r, const py::bytes& data) { return r.decode(std::string(data)); },
          py::arg("data"),
          "Decodes one body into this message (meant to be a fresh one; actions are appended).\n"
          "Only the two '%' markers are checked; bytes after the closing one are ignored.\n"
          "A negative text length raises ValueError.")
      .def("__repr__", [](const Message_RTS& r) {
        std::ostringstream s;
        s << "Message_RTS(" << py::repr(to_py_text(r.sender_id)).cast<std::string>() << " -> "
          << py::repr(to_py_text(r.receiver_id)).cast<std::string>()
          << ", key=" << static_cast<std::int32_t>(r.key) << ", int_param=" << r.int_param
          << ", actions=" << r.actions.size() << ")";
        return s.str();
      });
  text_field(msg, "sender_id", &Message_RTS::sender_id, "Node id of the sender.");
  text_field(msg, "receiver_id", &Message_RTS::receiver_id, "Node id of the addressee.");
  text_field(msg, "text_param1", &Message_RTS::text_param1, "First text parameter.");
  text_field(msg, "text_param2", &Message_RTS::text_param2, "Second text parameter.");
  text_field(msg, "text_param3", &Message_RTS::text_param3, "Third text parameter.");

  m.def(
      "frame", [](Message_RTS& r) { return frame_body(r.str()); }, py::arg("message"),
      "The message as it goes on the wire: '#', int32 11, int32 length, body, ';' "
      "(little-endian).");
  m.def(
      "frame", [](const py::bytes& body) { return frame_body(std::string(body)); }, py::arg("body"),
      "Frames an already encoded (or deliberately broken) body.");

  py::class_<Robot>(
      m, "Robot",
      "The handle on the robot. Connects to the control server on creation; keep exactly\n"
      "one alive per process (all share, and any one's destruction tears down, the\n"
      "connection).")
      // Connecting may wait on the network; it touches no Python object.
      .def(py::init<>(), py::call_guard<py::gil_scoped_release>())
      .def("Init", &Robot::Init, py::arg("x"), py::arg("y"), py::arg("z"),
           "Queues KEY_KILL then KEY_INIT with the pose (x and y in millimetres).")
      .def("Kill", &Robot::Kill, "Queues KEY_KILL and clears online.")
      .def("Handle", &Robot::Handle, "One service step: receive, apply, send. Never waits.")
      .def("SetPosition", py::overload_cast<float, float, float>(&Robot::SetPosition), py::arg("x"),
           py::arg("y"), py::arg("z"), "Go to one position (x, y in millimetres).")
      .def("SetPosition", &tarn::set_path, py::arg("points"),
           "Go along way-points given as (x, y, z) tuples, x and y in millimetres; the same\n"
           "as tarnsdk.set_path(robot, points).")
      .def("SetVelocity", &Robot::SetVelocity, py::arg("v"), "300 to 1300 mm/s.")
      .def("SetAcceleration", &Robot::SetAcceleration, py::arg("a"), "100 to 1000 mm/s^2.")
      .def("SetOrientation", &Robot::SetOrientation, py::arg("r"), "-pi to pi radians.")
      .def("GetDetial", &Robot::GetDetial, "Asks the robot for a status report.")
      .def(
          "DebugString", [](Robot& r) { return to_py_text(r.DebugString()); },
          "The three-line status text.")
      .def("__str__", [](Robot& r) { return to_py_text(r.DebugString()); })
      .def_property_readonly(
          "name", [](const Robot& r) { return to_py_text(r.name); },
          "Node id from the last status report.")
      .def_readonly("x", &Robot::x)
      .def_readonly("y", &Robot::y)
      .def_readonly("z", &Robot::z)
      .def_readonly("orientation", &Robot::orientation)
      .def_readonly("acceleration", &Robot::acceleration)
      .def_readonly("velocity", &Robot::velocity)
      .def_readonly("voltage", &Robot::voltage)
      .def_readonly("connected", &Robot::connected)
      .def_readonly("online", &Robot::online)
      .def_readonly("state", &Robot::state);

  py::class_<tarn::TaskState>(m, "TaskState", "One row of the task-state table.")
      .def_readonly("code", &tarn::TaskState::code)
      .def_readonly("name", &tarn::TaskState::name)
      .def_readonly("ident", &tarn::TaskState::ident)
      .def_readonly("cause", &tarn::TaskState::cause)
      .def("__repr__", [](const tarn::TaskState& s) {
        return "TaskState(" + std::to_string(s.code) + ", '" + s.name + "')";
      });
  m.attr("task_states") = py::cast(
      std::vector<tarn::TaskState>(std::begin(tarn::task_states), std::end(tarn::task_states)));
  m.attr("STATE_FREE") = tarn::state_free;
  m.attr("STATE_WORKING") = tarn::state_working;
  m.def("describe_state", &tarn::describe_state, py::arg("code"),
        "The task state in words: 'free', 'working', 'error 3 (busy)', 'error 9'.");
  m.def("is_error", &tarn::is_error, py::arg("code"), "True for anything but free and working.");
  m.def("set_path", &tarn::set_path, py::arg("robot"), py::arg("points"),
        "Robot.SetPosition along (x, y, z) points, x and y in millimetres. False when the\n"
        "robot is not online and free, or the path is longer than max_path_points().");
  m.def("max_path_points", &tarn::max_path_points,
        "The longest path one message can carry to a receiver.");
  m.def(
      "connect",
      [](double timeout) {
        std::unique_ptr<Robot> robot;
        {
          py::gil_scoped_release unlocked;
          robot = tarn::connect(to_ms(timeout));
        }
        check_signals();
        return robot;
      },
      py::arg("timeout"),
      "A Robot whose connecting gives up after `timeout` seconds (a server whose accept\n"
      "queue is full would otherwise keep it for minutes); check .connected. SIGALRM is\n"
      "taken over while it connects.");

  py::class_<tarn::Report>(m, "Report", "A status report as the library applied it.")
      .def_readonly("voltage", &tarn::Report::voltage, "Volts.")
      .def_readonly("x", &tarn::Report::x, "Metres.")
      .def_readonly("y", &tarn::Report::y, "Metres.")
      .def_readonly("state", &tarn::Report::state, "The task state (see describe_state).")
      .def_readonly("orientation", &tarn::Report::orientation, "Radians.")
      .def_readonly("velocity", &tarn::Report::velocity, "mm/s.")
      .def_readonly("acceleration", &tarn::Report::acceleration, "mm/s^2.")
      .def_property_readonly(
          "name", [](const tarn::Report& r) { return to_py_text(r.name); }, "The robot's node id.")
      .def_readonly("complete", &tarn::Report::complete,
                    "All seven numbers parsed; if not, the later ones kept their values.")
      .def_readonly("online", &tarn::Report::online,
                    "True or False as the report says; None when it does not say.");

  py::enum_<tarn::EventType>(m, "EventType", "What a message meant, or what happened.")
      .value("InitAcknowledged", tarn::EventType::InitAcknowledged)
      .value("KillAcknowledged", tarn::EventType::KillAcknowledged)
      .value("Report", tarn::EventType::Report)
      .value("Refused", tarn::EventType::Refused)
      .value("WaypointPassed", tarn::EventType::WaypointPassed)
      .value("ActionFinished", tarn::EventType::ActionFinished)
      .value("ConnectionLost", tarn::EventType::ConnectionLost)
      .value("Unreadable", tarn::EventType::Unreadable)
      .value("Other", tarn::EventType::Other);

  py::class_<tarn::Event>(m, "Event", "One message as the application sees it, once applied.")
      .def_readonly("type", &tarn::Event::type)
      .def_readonly("message", &tarn::Event::message, "The message as it arrived.")
      .def_readonly("report", &tarn::Event::report, "Report and Refused: the report applied.")
      .def_readonly("code", &tarn::Event::code, "Refused: the error code.")
      .def_readonly("passed", &tarn::Event::passed,
                    "WaypointPassed, ActionFinished: way-points of that action passed (k).")
      .def_readonly("total", &tarn::Event::total,
                    "WaypointPassed, ActionFinished: way-points it was sent with (n); 0 when\n"
                    "no action was running.")
      .def_readonly("reason", &tarn::Event::reason, "Unreadable: what is wrong.")
      .def("__repr__", [](const tarn::Event& e) {
        std::string text = std::string("Event(") + tarn::event_name(e.type);
        if (e.type == tarn::EventType::Report || e.type == tarn::EventType::Refused)
          text += ", " + tarn::describe_state(e.report.state);
        if (e.total > 0) text += ", " + std::to_string(e.passed) + "/" + std::to_string(e.total);
        return text + ")";
      });

  py::class_<EventStream>(m, "EventStream", "The iterator events.serve() returns.")
      .def("__iter__", [](EventStream& s) -> EventStream& { return s; })
      .def("__next__", &EventStream::next);

  py::class_<PyEvents>(
      m, "Events",
      "Serves the robot's connection in place of Robot.Handle() and hands over each message\n"
      "the robot sends, once, in arrival order, as an Event. Use one per Robot.")
      .def(py::init<Robot&>(), py::arg("robot"), py::keep_alive<1, 2>())
      .def("step", &PyEvents::step,
           "One bounded service step, without waiting: the events it applied (after any a\n"
           "broken-off serve() left), as a list.")
      .def(
          "serve",
          [](PyEvents& events, double timeout) {
            return EventStream{events, PyEvents::Clock::now() + to_ms(timeout)};
          },
          py::arg("timeout"), py::keep_alive<0, 1>(),
          "Yields each event once as it arrives, sleeping in poll() (GIL released) between\n"
          "steps, for at most `timeout` seconds; stops earlier once nothing more can happen\n"
          "(see lost, unreadable). Ctrl-C raises KeyboardInterrupt. So:\n"
          "    for e in events.serve(timeout=5):\n"
          "        if e.type == EventType.InitAcknowledged: break\n"
          "    else:\n"
          "        ...  # no answer in time, or the connection is over")
      .def(
          "hang_up",
          [](PyEvents& events, double timeout) {
            py::gil_scoped_release unlocked;
            return events.layer().hang_up(PyEvents::Clock::now() + to_ms(timeout),
                                          [](const tarn::Event&) {});
          },
          py::arg("timeout"),
          "Ends the session without losing its last commands: writes them, half-closes, and\n"
          "waits for the server to close too (True) for at most `timeout` seconds.")
      .def_property_readonly(
          "backlog", [](PyEvents& e) { return e.layer().backlog(); },
          "The last step left received frames for the next one.")
      .def_property_readonly(
          "lost", [](PyEvents& e) { return e.layer().lost(); }, "The server closed the connection.")
      .def_property_readonly(
          "unreadable", [](PyEvents& e) { return e.layer().unreadable(); },
          "The stream held data that cannot be read; reading stopped.")
      .def_static("unsent", &tarn::Events::unsent, "A queued command is not written yet.");
}
