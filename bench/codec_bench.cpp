// Encode + decode of the 52-byte parameter message and of an action message
// with 100 way-points, against the same content through protobuf and against
// a memcpy of as many bytes (the floor). Then recv_msg per frame with 0, 64 KiB
// and 1 MiB of further frames buffered behind it, against the cost of cutting
// the consumed frame from the front of a buffer that long.

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench.h"
#include "msg/msg.h"
#include "net/Socket.h"

#ifdef TARN_BENCH_PROTOBUF
#include "compare.pb.h"
#endif

namespace {

Message_RTS ParamMessage() {
  Message_RTS m;
  m.key = KEY_SET_PARAM;
  m.sender_id = "T-0";
  m.receiver_id = "SV-0";
  m.int_param = 800;
  m.text_param1 = "Speed";
  return m;
}

// What SetPosition queues for a list of 100 points.
Message_RTS ActionMessage(int points) {
  std::deque<QrInfo_RTS> path;
  for (int i = 0; i < points; ++i) {
    QrInfo_RTS p(std::to_string(i), 0.5f * i, 1.5f * i, SPACE_DEFAULT, 1);
    p.z = 0.25f;
    path.push_back(p);
  }
  Message_RTS m;
  m.key = KEY_ACTION;
  m.sender_id = "T-0";
  m.receiver_id = "R-0";
  m.int_param = points;
  m.actions.emplace_back(1, path);
  return m;
}

void TarnCodec(benchmark::State& state, Message_RTS message) {
  const std::size_t size = message.str().size();
  for (auto _ : state) {
    std::string bytes = message.str();
    Message_RTS back;
    back.decode(bytes);
    benchmark::DoNotOptimize(back.key);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
  state.counters["bytes"] = static_cast<double>(size);
}

// The parts of one round trip, to show where its time goes.
void TarnEncode(benchmark::State& state, Message_RTS message) {
  for (auto _ : state) benchmark::DoNotOptimize(message.str());
}

void TarnDecode(benchmark::State& state, Message_RTS message) {
  const std::string bytes = message.str();
  for (auto _ : state) {
    Message_RTS back;
    back.decode(bytes);
    benchmark::DoNotOptimize(back.key);
  }
}

void FreshRecord(benchmark::State& state) {
  for (auto _ : state) {
    Message_RTS record;
    benchmark::DoNotOptimize(record.key);
  }
}

void Memcpy(benchmark::State& state, std::size_t size) {
  std::vector<char> from(size, 'x');
  std::vector<char> to(size);
  for (auto _ : state) {
    benchmark::DoNotOptimize(from.data());
    std::memcpy(to.data(), from.data(), size);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

#ifdef TARN_BENCH_PROTOBUF
// The same content: way-point codes as the integers they travel as.
tarnbench::Message ToProto(const Message_RTS& m) {
  tarnbench::Message pb;
  pb.set_head_word(m.head_word);
  pb.set_sender_id(m.sender_id);
  pb.set_receiver_id(m.receiver_id);
  pb.set_key(m.key);
  pb.set_text_param1(m.text_param1);
  pb.set_text_param2(m.text_param2);
  pb.set_text_param3(m.text_param3);
  pb.set_int_param(m.int_param);
  for (const Action_RTS& a : m.actions) {
    tarnbench::Action* pa = pb.add_actions();
    pa->set_type(a.type);
    for (const QrInfo_RTS& q : a.path) {
      tarnbench::Point* pp = pa->add_path();
      pp->set_code(std::atoi(q.qr_code.c_str()));
      pp->set_x(q.x);
      pp->set_y(q.y);
      pp->set_z(q.z);
      pp->set_flag(q.flag);
      pp->set_space_type(q.space_type);
    }
    pa->mutable_target()->set_code(a.target.qr_code);
    pa->mutable_target()->set_x(a.target.x);
    pa->mutable_target()->set_y(a.target.y);
    pa->mutable_target()->set_space_type(a.target.space_type);
    pa->set_param(a.param);
  }
  return pb;
}

void ProtoCodec(benchmark::State& state, Message_RTS message) {
  const tarnbench::Message pb = ToProto(message);
  for (auto _ : state) {
    std::string bytes;
    pb.SerializeToString(&bytes);
    tarnbench::Message back;
    back.ParseFromString(bytes);
    benchmark::DoNotOptimize(back.key());
  }
  state.counters["bytes"] = static_cast<double>(pb.ByteSizeLong());
}
#endif

// The 62-byte frame of the parameter message, as send_msg writes it.
std::string ParamFrame() {
  Message_RTS m = ParamMessage();
  const std::string body = m.str();
  std::string frame = "#";
  const std::int32_t type = 11, length = static_cast<std::int32_t>(body.size());
  frame.append(reinterpret_cast<const char*>(&type), 4);
  frame.append(reinterpret_cast<const char*>(&length), 4);
  return frame + body + ";";
}

std::string Behind(std::size_t bytes) {
  const std::string frame = ParamFrame();
  std::string out;
  while (out.size() < bytes) out += frame;
  return out;
}

// One frame filed per iteration; a frame is appended at the back each time so
// that the amount buffered behind the front frame stays the same.
void RecvBehind(benchmark::State& state, std::size_t behind) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
    state.SkipWithError("socketpair");
    return;
  }
  const std::string frame = ParamFrame();
  {
    Socket socket;
    socket.Get(fds[0]);  // nothing to read: every Recv comes back empty
    socket.m_buffer = frame + Behind(behind);
    MailBox box;
    std::vector<Message_RTS>& filed = box.inbox["T-0"];
    for (auto _ : state) {
      benchmark::DoNotOptimize(recv_msg(socket, box));
      filed.clear();
      socket.m_buffer += frame;
    }
  }
  close(fds[1]);
}

void EraseFront(benchmark::State& state, std::size_t behind) {
  const std::string frame = ParamFrame();
  std::string buffer = frame + Behind(behind);
  for (auto _ : state) {
    buffer.erase(0, frame.size());
    buffer += frame;
    benchmark::DoNotOptimize(buffer.data());
  }
}

}  // namespace

void RegisterCodecBenchmarks(std::vector<Ratio>& ratios) {
  const Message_RTS param = ParamMessage();
  const Message_RTS action = ActionMessage(100);
  const std::size_t action_size = Message_RTS(action).str().size();

  benchmark::RegisterBenchmark("codec/param52/tarn", TarnCodec, param);
  benchmark::RegisterBenchmark("codec/param52/memcpy", Memcpy, std::size_t{52});
  benchmark::RegisterBenchmark("codec/param52/tarn_encode", TarnEncode, param);
  benchmark::RegisterBenchmark("codec/param52/tarn_decode", TarnDecode, param);
  benchmark::RegisterBenchmark("codec/fresh_record", FreshRecord);
  benchmark::RegisterBenchmark("codec/action100/tarn", TarnCodec, action);
  benchmark::RegisterBenchmark("codec/action100/memcpy", Memcpy, action_size);
#ifdef TARN_BENCH_PROTOBUF
  benchmark::RegisterBenchmark("codec/param52/protobuf", ProtoCodec, param);
  benchmark::RegisterBenchmark("codec/action100/protobuf", ProtoCodec, action);
#endif
  ratios.push_back({"param52 encode+decode vs protobuf", Ratio::kTimeRatio, "codec/param52/tarn",
                    "codec/param52/protobuf", 1.0});
  ratios.push_back({"param52 encode+decode vs memcpy floor", Ratio::kTimeRatio,
                    "codec/param52/tarn", "codec/param52/memcpy", 10.0});
  ratios.push_back({"action100 encode+decode vs protobuf", Ratio::kTimeRatio,
                    "codec/action100/tarn", "codec/action100/protobuf", 1.0});
  ratios.push_back({"action100 encode+decode vs memcpy floor", Ratio::kTimeRatio,
                    "codec/action100/tarn", "codec/action100/memcpy", 0});

  for (std::size_t behind : {std::size_t{0}, std::size_t{64} << 10, std::size_t{1} << 20}) {
    const std::string suffix = std::to_string(behind);
    benchmark::RegisterBenchmark(("recv/behind/" + suffix).c_str(), RecvBehind, behind);
    benchmark::RegisterBenchmark(("erase/behind/" + suffix).c_str(), EraseFront, behind);
    if (behind != 0) {
      Ratio r{"recv_msg, " + suffix + " B behind vs base + cut", Ratio::kRecvGrowth,
              "recv/behind/" + suffix, "erase/behind/" + suffix, 1.2};
      r.base = "recv/behind/0";
      r.anchor_base = "erase/behind/0";
      ratios.push_back(r);
    }
  }
}
