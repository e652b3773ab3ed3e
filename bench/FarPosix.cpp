// The far end of the benchmarks: streams to and from many units with the processor time that the
// processes under them take meanwhile, the latency of requests, and bare programs of the same work
// to compare with. bench/table.py runs it and reads the one line of JSON that it prints. Linux
// alone.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <sstream>
#include <stop_token>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "wire/Audio.h"
#include "wire/Models.h"
#include "wire/Units.h"

namespace {

using wire::Endpoint;

constexpr int64_t kSecond = 1'000'000'000;  // times are in nanoseconds
constexpr int64_t kPeriod = 4'000'000;      // of the packets of a stream
constexpr int kSlots = 16;                  // the streams that are sent are spread over a period

// What stands on the command line as NAME=VALUE.
class Arguments {
 public:
  Arguments(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
      const std::string text = argv[i];
      values_[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
    }
  }
  std::string Text(const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? "" : found->second;
  }
  double Number(const std::string& name) const {
    return values_.count(name) == 0 ? 0 : std::stod(Text(name));
  }
  // A,B,C
  std::vector<std::string> List(const std::string& name) const {
    std::vector<std::string> parts;
    std::istringstream text(Text(name));
    for (std::string part; std::getline(text, part, ',');)
      parts.push_back(part);
    return parts;
  }
  // The address of stream or unit number `i`: a first one and the distance of the ports.
  Endpoint Address(const std::string& name, size_t i = 0, int step = 0) const {
    Endpoint first = Endpoint::Parse(Text(name)).value();
    first.port = static_cast<uint16_t>(first.port + static_cast<int>(i) * step);
    return first;
  }

 private:
  std::map<std::string, std::string> values_;
};

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

int64_t Now(clockid_t clock = CLOCK_MONOTONIC) {
  timespec now{};
  if (clock_gettime(clock, &now) != 0) Fail("clock_gettime");
  return now.tv_sec * kSecond + now.tv_nsec;
}

void SleepUntil(int64_t time) {
  const timespec until{time / kSecond, time % kSecond};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

sockaddr_in ToSystem(const Endpoint& from) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(from.address);
  to.sin_port = htons(from.port);
  return to;
}

class Socket {
 public:
  explicit Socket(const Endpoint& local) : handle_(socket(AF_INET, SOCK_DGRAM, 0)) {
    const sockaddr_in address = ToSystem(local);
    if (handle_ < 0) Fail("socket");
    if (bind(handle_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      Fail("bind to " + local.ToText());
  }
  ~Socket() { close(handle_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int Handle() const { return handle_; }
  void SendTo(const wire::Bytes& bytes, const sockaddr_in& to) const {
    sendto(handle_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
           sizeof to);
  }

 private:
  const int handle_;
};

double Percentile(std::vector<int64_t>& values, double part) {
  if (values.empty()) return 0;
  const auto at = static_cast<ptrdiff_t>(part * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return static_cast<double>(values[static_cast<size_t>(at)]);
}

// -- Streams ------------------------------------------------------------------------------------

// One stream that comes in: when each packet came against a grid of 4 ms that begins with the
// first.
struct Stream {
  int64_t first = 0;
  uint16_t latest = 0;
  int64_t place = -1;  // of the latest packet, counted from the first
  std::vector<int64_t> late;
};

// Takes all streams, on one port or a few, and tells them apart by where they come from. The times
// are those at which the kernel got the packets, so it doesn't matter when this thread looks.
class Receiver {
 public:
  explicit Receiver(const std::vector<Endpoint>& locals) {
    for (const Endpoint& local : locals) {
      const Socket& one = *sockets_.emplace_back(std::make_unique<Socket>(local));
      const int size = 64 << 20;
      const int on = 1;
      if (setsockopt(one.Handle(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        setsockopt(one.Handle(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
      setsockopt(one.Handle(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
      setsockopt(one.Handle(), SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    }
    overflows_.resize(locals.size());
    for (size_t i = 0; i < kBatch; ++i) {
      parts_[i] = {packets_[i].data(), packets_[i].size()};
      messages_[i].msg_hdr.msg_iov = &parts_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
      messages_[i].msg_hdr.msg_name = &senders_[i];
      messages_[i].msg_hdr.msg_control = controls_[i].data();
    }
  }

  void Take() {
    for (size_t from = 0; from < sockets_.size(); ++from) {
      int count = 0;
      do {
        for (size_t i = 0; i < kBatch; ++i) {
          messages_[i].msg_hdr.msg_namelen = sizeof senders_[i];
          messages_[i].msg_hdr.msg_controllen = controls_[i].size();
        }
        count = recvmmsg(sockets_[from]->Handle(), messages_.data(), kBatch, MSG_DONTWAIT, nullptr);
        for (int i = 0; i < count; ++i)
          Add(static_cast<size_t>(i), overflows_[from]);
      } while (count == static_cast<int>(kBatch));
    }
  }

  void Begin() {
    streams_.clear();
    overflowsBefore_ = Overflows();
    packetCount = lost = 0;
  }

  // Lateness in µs against the grid through the earliest packet of each stream.
  void Print(int64_t cpu, double seconds, int64_t machineLate) {
    std::vector<int64_t> all;
    for (auto& [sender, stream] : streams_) {
      const int64_t earliest = *std::min_element(stream.late.begin(), stream.late.end());
      for (const int64_t late : stream.late)
        all.push_back(late - earliest);
    }
    const auto beyond = std::count_if(all.begin(), all.end(), [](auto t) { return t > kPeriod; });
    const double p50 = Percentile(all, 0.5) / 1e3, p99 = Percentile(all, 0.99) / 1e3;
    std::printf(
        "{\"cpu_ms_s\": %.3f, \"streams\": %zu, \"packets\": %llu, \"lost\": %llu, \"overflow\": "
        "%u, \"late_p50\": %.1f, \"late_p99\": %.1f, \"late_max\": %.1f, \"beyond_step\": "
        "%td, \"machine_late_max\": %.1f}\n",
        static_cast<double>(cpu) / 1e6 / seconds, streams_.size(), packetCount, lost,
        Overflows() - overflowsBefore_, p50, p99, Percentile(all, 1) / 1e3, beyond,
        static_cast<double>(machineLate) / 1e3);
  }

  unsigned long long packetCount = 0, lost = 0;

 private:
  static constexpr size_t kBatch = 64;

  uint32_t Overflows() const { return std::accumulate(overflows_.begin(), overflows_.end(), 0u); }

  void Add(size_t i, uint32_t& overflows) {
    int64_t time = 0;
    msghdr& message = messages_[i].msg_hdr;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part; part = CMSG_NXTHDR(&message, part)) {
      timespec stamp{};
      if (part->cmsg_type == SO_TIMESTAMPNS) {
        std::memcpy(&stamp, CMSG_DATA(part), sizeof stamp);
        time = stamp.tv_sec * kSecond + stamp.tv_nsec;
      } else if (part->cmsg_type == SO_RXQ_OVFL) {
        std::memcpy(&overflows, CMSG_DATA(part), sizeof overflows);
      }
    }
    ++packetCount;
    const auto sequence = static_cast<uint16_t>(packets_[i][2] << 8 | packets_[i][3]);
    Stream& stream = streams_[{ntohl(senders_[i].sin_addr.s_addr), ntohs(senders_[i].sin_port)}];
    if (stream.place < 0) {
      stream.first = time;
      stream.place = 0;
    } else {
      const auto step = static_cast<int16_t>(sequence - stream.latest);
      if (step <= 0) return;  // came again
      lost += static_cast<unsigned long long>(step - 1);
      stream.place += step;
    }
    stream.latest = sequence;
    stream.late.push_back(time - stream.first - stream.place * kPeriod);
  }

  std::vector<std::unique_ptr<Socket>> sockets_;
  std::vector<uint32_t> overflows_;  // packets that a socket had no room for, since its beginning
  uint32_t overflowsBefore_ = 0;
  std::map<Endpoint, Stream> streams_;
  std::array<std::array<uint8_t, 2048>, kBatch> packets_{};
  std::array<std::array<uint8_t, 256>, kBatch> controls_{};
  std::array<sockaddr_in, kBatch> senders_{};
  std::array<iovec, kBatch> parts_{};
  std::array<mmsghdr, kBatch> messages_{};
};

// Sends to `count` receivers, each every 4 ms.
class Sender {
 public:
  Sender(const Arguments& arguments, size_t count) : rtp_(arguments.Number("rtp") != 0) {
    for (size_t i = 0; i < count; ++i)
      to_.push_back(
          ToSystem(arguments.Address("send", i, static_cast<int>(arguments.Number("send_step")))));
  }

  void Turn(int64_t turn) {
    header_.sequence = static_cast<uint16_t>(turn / kSlots);
    header_.timestamp = static_cast<uint32_t>(turn / kSlots) * wire::kPacketFrames;
    if (to_.empty()) return;
    if (packet_.empty() || turn % kSlots == 0) {
      packet_ = wire::EncodePacket(header_, frames_);
      if (rtp_) {
        packet_[0] = 0x80;
        packet_[1] = header_.payloadType;
      }
    }
    for (size_t i = static_cast<size_t>(turn % kSlots); i < to_.size(); i += kSlots)
      socket_.SendTo(packet_, to_[i]);
  }

 private:
  const bool rtp_;  // the bit fields of the first two bytes in the order of RFC 3550
  wire::StreamHeader header_;
  const wire::Frames frames_ = wire::Ramp(0.5f, true);
  std::vector<sockaddr_in> to_;
  wire::Bytes packet_;
  Socket socket_{Endpoint("127.0.0.1", 0)};
};

// How late the machine itself is: a thread of the highest priority on each core that has nothing to
// do but to wake every half millisecond. What shows here no program can help.
class MachineWatch {
 public:
  MachineWatch() {
    for (unsigned core = 0; core < std::thread::hardware_concurrency(); ++core)
      threads_.emplace_back([this, core](const std::stop_token& stop) { Watch(core, stop); });
  }

  void Begin() { greatest_ = 0; }
  int64_t Greatest() const { return greatest_; }  // ns

 private:
  void Watch(unsigned core, const std::stop_token& stop) {
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(core, &only);
    pthread_setaffinity_np(pthread_self(), sizeof only, &only);
    sched_param highest{};
    highest.sched_priority = sched_get_priority_max(SCHED_FIFO);
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &highest) != 0) return;
    for (int64_t due = Now(); !stop.stop_requested(); due = std::max(due + kSecond / 2000, Now())) {
      SleepUntil(due);
      const int64_t late = Now() - due;
      int64_t seen = greatest_;
      while (late > seen && !greatest_.compare_exchange_weak(seen, late)) {
      }
    }
  }

  std::atomic<int64_t> greatest_{0};
  std::vector<std::jthread> threads_;  // last: they use the rest
};

// Switches the inputs of all units on, if any are named, sends streams, if any, and measures for so
// many seconds, after a second for all to begin.
void RunStreams(const Arguments& arguments) {
  std::vector<Endpoint> locals;
  for (const std::string& local : arguments.List("listen"))
    locals.push_back(Endpoint::Parse(local).value());
  Receiver receiver(locals);
  Sender sender(arguments, static_cast<size_t>(arguments.Number("send_count")));
  if (const auto count = static_cast<size_t>(arguments.Number("unit_count")); count != 0) {
    wire::Loop loop;
    wire::Link link(loop, {"127.0.0.1", 0});
    const std::vector<wire::InputChange> on(static_cast<size_t>(arguments.Number("inputs")),
                                            {true, locals.at(0)});
    for (size_t i = 0; i < count; ++i) {
      const int step = static_cast<int>(arguments.Number("unit_step"));
      wire::UnitControl(link, arguments.Address("units", i, step)).SetInputs(on);
    }
  }

  std::vector<clockid_t> clocks;
  for (const std::string& process : arguments.List("pid")) {
    if (clock_getcpuclockid(std::stoi(process), &clocks.emplace_back()) != 0)
      throw std::runtime_error("no process " + process);
  }
  const auto cpuNow = [&clocks] {
    int64_t sum = 0;
    for (const clockid_t clock : clocks)
      sum += Now(clock);
    return sum;
  };
  const double seconds = arguments.Number("seconds");
  const int64_t start = Now();
  const auto slot = kPeriod / kSlots;
  const auto warmUp = static_cast<int64_t>(std::min(1.0, seconds) * 1e9) / slot;
  const auto end = warmUp + static_cast<int64_t>(seconds * 1e9) / slot;
  int64_t cpu = 0, begin = 0;
  std::optional<MachineWatch> machine;
  if (arguments.Number("watch") != 0) machine.emplace();
  for (int64_t turn = 0; turn < end; ++turn) {
    SleepUntil(start + turn * slot);
    sender.Turn(turn);
    receiver.Take();
    if (turn == warmUp) {
      receiver.Begin();
      if (machine) machine->Begin();
      cpu = cpuNow();
      begin = Now();
    }
  }
  cpu = cpuNow() - cpu;
  receiver.Print(cpu, static_cast<double>(Now() - begin) / 1e9, machine ? machine->Greatest() : 0);
}

// -- Latency ------------------------------------------------------------------------------------

// Requests back to back, each acknowledged and answered; the answer is acknowledged in turn.
void RunLatency(const Arguments& arguments) {
  const Socket socket(Endpoint("127.0.0.1", 0));
  const sockaddr_in to = ToSystem(arguments.Address("to"));
  const auto count = static_cast<size_t>(arguments.Number("count"));
  std::vector<int64_t> acks, answers;
  size_t repeats = 0;
  auto number = static_cast<uint32_t>(Now());
  wire::Bytes datagram(2048);
  while (answers.size() < count) {
    const wire::Bytes request = wire::Encode({{"msg", "get_dev_info"}, {"msg_id", ++number}});
    const int64_t sent = Now();  // the reply may be there before the call returns
    socket.SendTo(request, to);
    int64_t ack = 0, answer = 0;
    while (ack == 0 || answer == 0) {
      pollfd ready{socket.Handle(), POLLIN, 0};
      if (poll(&ready, 1, 1000) != 1) {
        if (++repeats > 10) throw std::runtime_error("no answer from " + arguments.Text("to"));
        break;
      }
      const ssize_t size = recv(socket.Handle(), datagram.data(), datagram.size(), 0);
      const int64_t now = Now();
      if (size <= 0) Fail("recv");
      const wire::Message message = wire::Decode({datagram.begin(), datagram.begin() + size});
      if (message.type == "ack") {
        ack = now - sent;
      } else {
        answer = now - sent;
        socket.SendTo(
            wire::Encode({{"ack_msg_id", message.id}, {"msg", "ack"}, {"msg_id", ++number}}), to);
      }
    }
    if (answer == 0) continue;
    acks.push_back(ack);
    answers.push_back(answer);
  }
  std::printf("{\"ack\": %.1f, \"answer\": %.1f}\n", Percentile(acks, 0.5) / 1e3,
              Percentile(answers, 0.5) / 1e3);
}

// -- Bare programs, which run until standard input ends -------------------------------------------

void WaitForEnd() {
  std::puts("ready");
  std::fflush(stdout);
  std::cin.get();
  std::_Exit(0);  // with whatever threads there are
}

// What a unit's socket and connection do with a request, without looking at it: one thread receives
// and hands over to another, which sends two datagrams back.
void RunBareEcho(const Arguments& arguments) {
  struct Request {
    sockaddr_in from{};
    wire::Bytes bytes;
  };
  const Socket socket(arguments.Address("listen"));
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<Request> queue;
  std::thread receiving([&] {
    for (;;) {
      Request request{{}, wire::Bytes(2048)};
      socklen_t length = sizeof request.from;
      const ssize_t size = recvfrom(socket.Handle(), request.bytes.data(), request.bytes.size(), 0,
                                    reinterpret_cast<sockaddr*>(&request.from), &length);
      // The far end's acknowledgement.
      const std::string_view text(reinterpret_cast<const char*>(request.bytes.data()),
                                  static_cast<size_t>(std::max<ssize_t>(size, 0)));
      if (text.find("\"ack\"") != text.npos) continue;
      {
        std::lock_guard lock(mutex);
        queue.push_back(std::move(request));
      }
      wake.notify_one();
    }
  });
  std::thread answering([&] {
    const wire::Bytes ack = wire::Encode({{"ack_msg_id", 1}, {"msg", "ack"}, {"msg_id", 1}});
    const wire::Bytes answer = wire::Encode({{"msg", "dev_info"}, {"msg_id", 2}});
    for (;;) {
      std::unique_lock lock(mutex);
      wake.wait(lock, [&] { return !queue.empty(); });
      const Request request = std::move(queue.front());
      queue.pop_front();
      lock.unlock();
      socket.SendTo(ack, request.from);
      socket.SendTo(answer, request.from);
    }
  });
  WaitForEnd();
}

// What a unit's streams need of the system, without a look at the samples: each of `count` ports
// receives, and each sends the latest packet back every 4 ms. With `threads` of 1 one thread does
// all; with 2 each port has one that receives and one that sends.
void RunBareLoop(const Arguments& arguments) {
  struct Port {
    explicit Port(const Endpoint& local) : socket(local) {}
    Socket socket;
    std::mutex mutex;
    wire::Bytes latest = wire::Bytes(wire::kPacketBytes);
    uint16_t sequence = 0;
  };
  std::vector<std::unique_ptr<Port>> ports;
  for (size_t i = 0; i < static_cast<size_t>(arguments.Number("count")); ++i) {
    const int step = static_cast<int>(arguments.Number("send_step"));
    ports.push_back(std::make_unique<Port>(arguments.Address("listen", i, step)));
  }
  const sockaddr_in to = ToSystem(arguments.Address("to"));
  const auto receive = [](Port& port, int flags) {
    wire::Bytes bytes(2048);
    ssize_t size = 0;
    while ((size = recv(port.socket.Handle(), bytes.data(), bytes.size(), flags)) > 0) {
      std::lock_guard lock(port.mutex);
      port.latest.assign(bytes.begin(), bytes.begin() + size);
    }
  };
  const auto send = [&to](Port& port) {
    std::lock_guard lock(port.mutex);
    ++port.sequence;
    port.latest[2] = static_cast<uint8_t>(port.sequence >> 8);
    port.latest[3] = static_cast<uint8_t>(port.sequence);
    port.socket.SendTo(port.latest, to);
  };
  const int64_t start = Now();
  std::vector<std::thread> threads;
  if (arguments.Number("threads") == 1) {
    threads.emplace_back([&] {
      for (int64_t turn = 1;; ++turn) {
        SleepUntil(start + turn * kPeriod);
        for (const auto& port : ports) {
          receive(*port, MSG_DONTWAIT);
          send(*port);
        }
      }
    });
  } else {
    for (size_t i = 0; i < ports.size(); ++i) {
      threads.emplace_back([&, i] { receive(*ports[i], 0); });
      threads.emplace_back([&, i] {
        const int64_t first = start + static_cast<int64_t>(i) * kPeriod / 64;
        for (int64_t turn = 1;; ++turn) {
          SleepUntil(first + turn * kPeriod);
          send(*ports[i]);
        }
      });
    }
  }
  WaitForEnd();
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, void (*)(const Arguments&)> commands{{"streams", RunStreams},
                                                                   {"latency", RunLatency},
                                                                   {"bare-echo", RunBareEcho},
                                                                   {"bare-loop", RunBareLoop}};
  try {
    commands.at(argc > 1 ? argv[1] : "")(Arguments(argc, argv));
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "far end: " << e.what() << '\n';
    return 1;
  }
}
