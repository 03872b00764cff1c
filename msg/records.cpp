// Constructors and comparisons of the records. Their byte codec lives in
// msg/codec.cpp.

#include <utility>

#include "msg/msg.h"
#include "msg/node_ids.h"

QrInfo_RTS::QrInfo_RTS() : qr_code(undef), x(0), y(0), z(0), space_type(SPACE_DEFAULT), flag(-1) {}

QrInfo_RTS::QrInfo_RTS(const std::string& code, float x_, float y_, Space_type space_type_,
                       int flag_)
    : qr_code(code), x(x_), y(y_), z(0), space_type(space_type_), flag(flag_) {}

// A way-point is its label: the same QR code at another recorded position is
// still the same way-point.
bool QrInfo_RTS::operator==(const QrInfo_RTS& other) const {
  return qr_code == other.qr_code;
}

bool QrInfo_RTS::operator!=(const QrInfo_RTS& other) const {
  return !(*this == other);
}

Action_RTS::Action_RTS(int type_, const QrInfo_RTS& target_, std::string param_)
    : type(type_), target(target_), param(std::move(param_)) {}

Action_RTS::Action_RTS(int type_, const QrInfo_RTS& target_, const std::deque<QrInfo_RTS>& path_)
    : type(type_), path(path_), target(target_), param("f") {}

// The action ends where its path ends; an empty path has nowhere to end, so
// the target is the blank way-point.
Action_RTS::Action_RTS(int type_, const std::deque<QrInfo_RTS>& path_)
    : type(type_), path(path_), target(path_.empty() ? QrInfo_RTS() : path_.back()), param("f") {}

Message_RTS::Message_RTS()
    : head_word(0),
      sender_id(undef),
      receiver_id(undef),
      key(KEY_NONE),
      int_param(0),
      text_param1(undef),
      text_param2(undef),
      text_param3(undef),
      local_flag(0) {}
