#include "wire/Loop.h"

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <asio/post.hpp>
#include <asio/socket_base.hpp>
#include <asio/steady_timer.hpp>
#include <system_error>

namespace wire {

namespace {

using asio::ip::udp;

constexpr auto kLongestSleep = std::chrono::milliseconds(5);
constexpr auto kPulse = std::chrono::milliseconds(4);
constexpr auto kForever = std::chrono::hours(24 * 365);

// Longer than any datagram.
constexpr size_t kBufferSize = 65536;

// Room for some two seconds of a stream, should this process stand still; the system cuts it down
// to what it permits.
constexpr int kReceiveRoom = 4 << 20;

udp::endpoint ToAsio(const Endpoint& endpoint) {
  return {asio::ip::address_v4(endpoint.address), endpoint.port};
}

Endpoint FromAsio(const udp::endpoint& endpoint) {
  return {endpoint.address().to_v4().to_uint(), endpoint.port()};
}

bool IsFull(const asio::error_code& error) {
  return error == asio::error::would_block || error == asio::error::try_again ||
         error == asio::error::no_buffer_space;
}

// What an earlier datagram met; the present call has done nothing yet and is made again.
bool IsOldNews(const asio::error_code& error) {
  return error == asio::error::connection_refused || error == asio::error::connection_reset;
}

}  // namespace

struct Loop::Impl {
  asio::io_context context;
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
};

Loop::Loop() : impl_(std::make_unique<Impl>()) {}

Loop::~Loop() = default;

bool Loop::RunUntil(const std::function<bool()>& done, Clock::duration limit) {
  const auto end = Clock::now() + limit;
  while (!done()) {
    if (shields_ == 0 && interrupt_ && interrupt_()) throw Interrupted();
    const auto now = Clock::now();
    if (now >= end) return false;
    impl_->context.run_one_until(std::min(end, now + kLongestSleep));
  }
  return true;
}

void Loop::RunFor(Clock::duration time) {
  RunUntil([] { return false; }, time);
}

void Loop::SetInterrupt(std::function<bool()> interrupt) {
  interrupt_ = std::move(interrupt);
}

void Loop::Trace(const char* arrow, const Endpoint& peer, std::string_view text) const {
  if (trace_) trace_(std::string(arrow) + " " + peer.ToText() + " " + std::string(text));
}

// The system's callback keeps a share of this, so that one that is under way when the port goes
// meets a closed socket and not a freed one.
struct UdpPort::Impl : std::enable_shared_from_this<UdpPort::Impl> {
  Impl(Loop& owner, Handler called) : socket(owner.Inner().context), handler(std::move(called)) {}

  void Open(const Endpoint& wanted, bool shared) {
    socket.open(udp::v4());
    if (shared) socket.set_option(asio::socket_base::reuse_address(true));
    socket.set_option(asio::socket_base::broadcast(true));
    asio::error_code ignored;
    socket.set_option(asio::socket_base::receive_buffer_size(kReceiveRoom), ignored);
    socket.bind(ToAsio(wanted));
    socket.non_blocking(true);
    local = FromAsio(socket.local_endpoint());
    Receive();
  }

  void Receive() {
    socket.async_receive_from(asio::buffer(buffer), from,
                              [self = shared_from_this()](asio::error_code error, size_t size) {
                                self->OnReceived(error, size);
                              });
  }

  // What an earlier datagram met comes as an error of the reception too: it is none of this one.
  void OnReceived(const asio::error_code& error, size_t size) {
    if (!socket.is_open() || error == asio::error::operation_aborted) return;
    if (!error && handler) {
      const auto end = buffer.begin() + static_cast<std::ptrdiff_t>(size);
      handler({Bytes(buffer.begin(), end), FromAsio(from), Clock::now()});
    }
    if (socket.is_open()) Receive();
  }

  asio::error_code Send(const Bytes& bytes, const Endpoint& to) {
    asio::error_code error;
    socket.send_to(asio::buffer(bytes), ToAsio(to), 0, error);
    if (IsOldNews(error)) socket.send_to(asio::buffer(bytes), ToAsio(to), 0, error);
    return error;
  }

  udp::socket socket;
  Endpoint local;
  Bytes buffer = Bytes(kBufferSize);
  udp::endpoint from;
  const Handler handler;
};

UdpPort::UdpPort(Loop& loop, const Endpoint& local, Handler handler, bool shared)
    : impl_(std::make_shared<Impl>(loop, std::move(handler))) {
  try {
    impl_->Open(local, shared);
  } catch (const std::system_error& error) {
    throw SocketError("can't open a socket on " + local.ToText() + ": " + error.code().message());
  }
}

UdpPort::~UdpPort() {
  asio::error_code ignored;
  impl_->socket.close(ignored);
}

const Endpoint& UdpPort::Local() const {
  return impl_->local;
}

void UdpPort::Send(const Bytes& bytes, const Endpoint& to) {
  asio::error_code error = impl_->Send(bytes, to);
  while (IsFull(error)) {
    asio::error_code ignored;
    impl_->socket.wait(udp::socket::wait_write, ignored);
    error = impl_->Send(bytes, to);
  }
  if (error) throw SendError("can't send to " + to.ToText() + ": " + error.message());
}

bool UdpPort::TrySend(const Bytes& bytes, const Endpoint& to) {
  return !impl_->Send(bytes, to);
}

struct Timer::Impl : std::enable_shared_from_this<Timer::Impl> {
  Impl(Loop& owner, std::function<void()> called)
      : timer(owner.Inner().context), handler(std::move(called)) {}

  // A callback may be on its way already when the time is changed: the number shows it that it is
  // the old one's.
  void Set(Clock::time_point time) {
    timer.expires_at(time);
    timer.async_wait([self = shared_from_this(), number = ++latest](asio::error_code error) {
      if (!error && number == self->latest) self->handler();
    });
  }

  asio::steady_timer timer;
  uint64_t latest = 0;
  const std::function<void()> handler;
};

Timer::Timer(Loop& loop, std::function<void()> handler)
    : impl_(std::make_shared<Impl>(loop, std::move(handler))) {}

Timer::~Timer() {
  Cancel();
}

void Timer::At(Clock::time_point time) {
  impl_->Set(time);
}

void Timer::Cancel() {
  ++impl_->latest;
  impl_->timer.cancel();
}

Pulse::Pulse(Loop& loop) : due_(Clock::now() + kPulse), timer_(loop, [this] { Beat(); }) {
  timer_.At(due_);
}

void Pulse::Beat() {
  const auto now = Clock::now();
  worst_ = std::max(worst_, now - due_);
  due_ = now + kPulse;
  timer_.At(due_);
}

LoopThread::LoopThread(Loop& loop) : loop_(loop) {
  thread_ = std::thread([this] { loop_.RunUntil([this] { return stop_; }, kForever); });
}

LoopThread::~LoopThread() {
  Post([this] { stop_ = true; });
  thread_.join();
}

void LoopThread::Post(std::function<void()> work) {
  asio::post(loop_.Inner().context, std::move(work));
}

}  // namespace wire
