#pragma once

/// @file
/// Records exchanged between the nodes of an installation (this client, the
/// control server and the robot), their byte codec, the framed exchange over
/// a Socket and the per-node mailbox.
///
/// Wire conventions: every number is 4 raw bytes in the host's byte order
/// (little-endian on the supported targets), floats are IEEE 754 single
/// precision, every text is a 32-bit length followed by its bytes.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <fstream>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

// The generated export macro. Installed, it lies beside the msg/, net/ and
// robot/ header directories; in the build tree it comes from the build's
// export directory.
#if __has_include("../tarn_export.h")
#include "../tarn_export.h"
#else
#include "tarn_export.h"
#endif

class Socket;

/// Kind of space at a way-point. The library itself produces only
/// SPACE_DEFAULT; any other 32-bit value that arrives is carried unchanged,
/// which an unscoped enumeration with a fixed underlying type permits.
enum Space_type : std::int32_t {
  SPACE_DEFAULT = 0,  ///< the only value the library produces
};

/// What a message asks or reports. KEY_NONE also marks a queued message as
/// handled or sent. Values that arrive outside this table are stored as they
/// are.
enum RTS_key : std::int32_t {
  KEY_NONE = 0,         ///< no request: the mark of a handled or sent message
  KEY_CONNECT = 1,      ///< the client's announcement, queued by Robot()
  KEY_INIT = 2,         ///< initialise at a pose; received: the acknowledgement
  KEY_KILL = 3,         ///< take the robot offline; received: the acknowledgement
  KEY_ORIENTATION = 7,  ///< turn to a heading ("r " and the angle)
  KEY_ACTION = 12,      ///< actions to perform; received: progress ("path", "action")
  KEY_GET_DETAIL = 13,  ///< ask for a status report
  KEY_DETAIL = 14,      ///< received: a status report
  KEY_SET_PARAM = 20,   ///< set "Speed" or "Acceleration" to int_param
};

/// One way-point, named by the label of the QR code that marks it.
class TARN_API QrInfo_RTS {
 public:
  /// ("N", 0, 0, 0, SPACE_DEFAULT, -1)
  QrInfo_RTS();
  /// Sets the code, x, y, space_type and flag; z is always 0 (there is no
  /// argument for it on purpose).
  QrInfo_RTS(const std::string& code, float x, float y, Space_type space_type, int flag);

  /// Way-points are identified by their label alone: coordinates, space type
  /// and flag take no part in the comparison.
  bool operator==(const QrInfo_RTS& other) const;
  /// The opposite of operator==: the labels differ.
  bool operator!=(const QrInfo_RTS& other) const;

  /// The label. Inside a path it travels as a 32-bit integer, so a way-point
  /// of a path should carry a decimal number; a target's label travels as text.
  std::string qr_code;
  float x;                ///< first coordinate (the motion commands store metres)
  float y;                ///< second coordinate (the motion commands store metres)
  float z;                ///< third coordinate, passed through unscaled
  Space_type space_type;  ///< kind of space at the way-point
  std::int32_t flag;      ///< per-way-point integer; the motion commands set 1
};

/// A way-point of an arc path. The four parameters are carried, never
/// computed with.
class QrInfo_ARC : public QrInfo_RTS {
 public:
  float arc_param1 = 0;  ///< first arc parameter
  float arc_param2 = 0;  ///< second arc parameter
  float arc_param3 = 0;  ///< third arc parameter
  float arc_param4 = 0;  ///< fourth arc parameter
};

/// One action for the robot: a type, a path of way-points, an arc path, the
/// way-point it ends at and a short text parameter. There is no default
/// constructor.
class TARN_API Action_RTS {
 public:
  /// path empty, target and param as given.
  Action_RTS(int type, const QrInfo_RTS& target, std::string param);
  /// path and target as given, param "f".
  Action_RTS(int type, const QrInfo_RTS& target, const std::deque<QrInfo_RTS>& path);
  /// path as given, target a copy of its last way-point (a default one when
  /// the path is empty), param "f".
  Action_RTS(int type, const std::deque<QrInfo_RTS>& path);

  /// The action's binary body. Path and arc-path codes travel as 32-bit
  /// integers, the target's code and param as exact bytes; target.z and
  /// target.flag are not carried.
  std::string str() const;

  /// Reads one body from the stream's current position, appending to path
  /// and arc_path. Lenient by contract: a short stream leaves unread fields
  /// as they were and the call still returns true; a negative text length
  /// throws std::length_error.
  bool decode(std::stringstream& in);
  /// The same from a file stream.
  bool decode(std::ifstream& in);

  std::int32_t type;                ///< 1: travel along the path (what the motion commands send)
  std::deque<QrInfo_RTS> path;      ///< way-points in travel order, front first
  std::deque<QrInfo_ARC> arc_path;  ///< way-points of an arc path, front first
  QrInfo_RTS target;                ///< the way-point the action ends at
  std::string param;                ///< text parameter, "f" unless given
};

/// The envelope of every exchange.
class TARN_API Message_RTS {
 public:
  /// head_word 0, every text "N", key KEY_NONE, int_param 0, no actions,
  /// local_flag 0.
  Message_RTS();

  /// The encoding: head_word, sender_id, receiver_id, key, the three texts,
  /// int_param, '%', the action count, the action bodies, '%'. Non-const by
  /// interface; it changes nothing.
  std::string str();

  /// Decodes one encoded record into this one (meant to be a fresh record;
  /// actions are appended). Only the two '%' markers are checked: a record
  /// cut off after its opening marker decodes as success, and a negative text
  /// length throws std::length_error.
  bool decode(std::ifstream& in);
  /// The same from a string stream, from its current position.
  bool decode(std::stringstream& in);
  /// The same from the start of a string; bytes after the closing marker are
  /// ignored.
  bool decode(const std::string& in);

  std::int32_t head_word;          ///< first word on the wire; 0 in everything the library sends
  std::string sender_id;           ///< node id of the sender; inbound records are filed under it
  std::string receiver_id;         ///< node id of the addressee
  RTS_key key;                     ///< what the message asks or reports
  std::int32_t int_param;          ///< integer parameter (a value, a way-point count)
  std::string text_param1;         ///< first text parameter
  std::string text_param2;         ///< second text parameter
  std::string text_param3;         ///< third text parameter
  std::deque<Action_RTS> actions;  ///< the actions a KEY_ACTION message carries
  /// Local bookkeeping: zeroed at construction and by every decode, copied
  /// with the record, never encoded.
  std::int32_t local_flag;
};

/// Per-node message queues: received messages filed under their sender in
/// inbox, messages to send queued in outbox under this client's node id.
class MailBox {
 public:
  /// Received and not yet handled, by the sender's node id.
  std::unordered_map<std::string, std::vector<Message_RTS>> inbox;
  /// Waiting to be sent; the library queues everything under "T-0".
  std::unordered_map<std::string, std::vector<Message_RTS>> outbox;
};

/// @name Frame layout
/// '#', the type word 11, the body length, the body, ';'.
/// @{
constexpr char header = '#';             ///< first byte of every frame
constexpr char ender = ';';              ///< last byte of every frame
constexpr std::int32_t frame_type = 11;  ///< the only frame type
/// Marker, type word and length word: the bytes in front of a frame's body.
constexpr std::size_t frame_header_size = 9;
/// Largest frame recv_msg accepts, terminator included; a longer one is
/// discarded as damage, so a sender must keep every message's encoding within
/// frame_max_size - frame_header_size - 1 bytes.
constexpr std::uint32_t frame_max_size = 1000000;
/// @}

/// Frames the message and writes it with a single Socket::Send. Returns that
/// send's result (a partial write counts as success).
TARN_API bool send_msg(Socket& socket, Message_RTS& message);

/// One receive, then at most one frame filed in box.inbox under its sender.
/// Returns -2 when the peer closed, 0 when nothing was filed, -11 / -10 for a
/// KEY_CONNECT from "T-0" / "R-0", otherwise the receive's result (the byte
/// count, or -1 when the message came from bytes already buffered).
TARN_API int recv_msg(Socket& socket, MailBox& box);
