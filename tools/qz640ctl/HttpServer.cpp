#include "HttpServer.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/read_until.hpp>
#include <asio/socket_base.hpp>
#include <asio/steady_timer.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <atomic>
#include <list>
#include <utility>

namespace ctl {

namespace {

using asio::ip::tcp;

// For a request to come in, and for bytes to be taken.
constexpr auto kPatience = std::chrono::seconds(10);
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

class Connection;

}  // namespace

// All of it but the count is used on the thread that serves.
struct HttpServer::Impl {
  explicit Impl(Answerer from) : answerer(std::move(from)) {}

  void Accept();

  std::atomic<size_t> viewers{0};  // outlives the connections, which the context holds
  const Answerer answerer;
  asio::io_context context;
  tcp::acceptor acceptor{context};
  asio::steady_timer pause{context};
  std::list<std::weak_ptr<Connection>> connections;
};

namespace {

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(HttpServer::Impl& server, tcp::socket socket)
      : server_(server),
        socket_(std::move(socket)),
        timer_(socket_.get_executor()),
        request_(HttpServer::kMostHead) {
    asio::error_code ignored;
    socket_.set_option(asio::socket_base::linger(true, 0), ignored);  // as End says
  }
  ~Connection() {
    if (viewing_) --server_.viewers;
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Begin() {
    SetDeadline();
    asio::async_read_until(socket_, request_, "\r\n\r\n",
                           [self = shared_from_this()](asio::error_code error, size_t size) {
                             if (!error) return self->Answer(size);
                             if (error == asio::error::not_found) return self->RefuseLongHead();
                             self->Close();
                           });
  }

  // A viewer that still takes the previous line gets this one after it, or a later one.
  void Offer(const std::shared_ptr<const std::string>& line) {
    if (!viewing_) return;
    next_ = line;
    if (!writing_) WriteNext();
  }

  void Close() {
    asio::error_code ignored;
    timer_.cancel();
    socket_.close(ignored);
  }

 private:
  void SetDeadline() {
    timer_.expires_after(kPatience);
    timer_.async_wait([self = shared_from_this()](asio::error_code error) {
      if (!error) self->Close();
    });
  }

  void Answer(size_t size) {
    const auto data = request_.data();
    const std::string head(asio::buffers_begin(data),
                           asio::buffers_begin(data) + static_cast<std::ptrdiff_t>(size));
    HttpAnswer answer = server_.answerer(head);
    if (answer.events && server_.viewers >= HttpServer::kMostViewers) {
      answer = Refusal("503 Service Unavailable",
                       std::to_string(HttpServer::kMostViewers) + " pages are open; close one.");
    }
    viewing_ = answer.events;
    if (viewing_) {
      ++server_.viewers;
      WatchForEnd();
    }
    Write(std::make_shared<const std::string>(std::move(answer.bytes)));
  }

  void RefuseLongHead() {
    Write(std::make_shared<const std::string>(
        Refusal("431 Request Header Fields Too Large", "The request is too long.").bytes));
  }

  // Nothing more comes from a viewer but the end.
  void WatchForEnd() {
    socket_.async_read_some(asio::buffer(rest_),
                            [self = shared_from_this()](asio::error_code error, size_t) {
                              if (error) {
                                self->Close();
                              } else {
                                self->WatchForEnd();
                              }
                            });
  }

  void WriteNext() { Write(std::exchange(next_, nullptr)); }

  void Write(std::shared_ptr<const std::string> bytes) {
    writing_ = true;
    SetDeadline();
    const auto buffer = asio::buffer(*bytes);
    asio::async_write(
        socket_, buffer,
        [self = shared_from_this(), kept = std::move(bytes)](asio::error_code error, size_t) {
          self->writing_ = false;
          self->timer_.cancel();
          if (error || !self->viewing_) {
            self->End();
          } else if (self->next_) {
            self->WriteNext();
          }
        });
  }

  // The client closes the connection, as the answer asks for. Were it closed from here, the
  // port would stay taken for a minute after this program has ended (RFC 9293, TIME-WAIT).
  void End() {
    if (viewing_) return Close();
    SetDeadline();
    WatchForEnd();
  }

  HttpServer::Impl& server_;
  tcp::socket socket_;
  asio::steady_timer timer_;
  asio::streambuf request_;
  char rest_[256];
  bool viewing_ = false;
  bool writing_ = false;
  std::shared_ptr<const std::string> next_;
};

}  // namespace

// More connections than are meant are let go at once.
void HttpServer::Impl::Accept() {
  acceptor.async_accept([this](asio::error_code error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) return;
    std::erase_if(connections, [](const auto& one) { return one.expired(); });
    if (!error && connections.size() < kMostConnections) {
      const auto connection = std::make_shared<Connection>(*this, std::move(socket));
      connections.push_back(connection);
      connection->Begin();
    }
    if (!error) return Accept();
    // Where no descriptor is to be had, the next try would fail at once.
    pause.expires_after(kAcceptPause);
    pause.async_wait([this](asio::error_code) { Accept(); });
  });
}

HttpAnswer WholeAnswer(const char* status, const char* type, const std::string& more,
                       const std::string& body) {
  return {false, std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
                     "; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
                     "\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n" +
                     "Referrer-Policy: no-referrer\r\nConnection: close\r\n" + more + "\r\n" +
                     body};
}

HttpAnswer Refusal(const char* status, const std::string& text, const std::string& more) {
  return WholeAnswer(status, "text/plain", more, text + "\n");
}

HttpServer::HttpServer(const wire::Endpoint& local, Answerer answerer)
    : impl_(std::make_unique<Impl>(std::move(answerer))) {
  tcp::acceptor& acceptor = impl_->acceptor;
  acceptor.open(tcp::v4());
  acceptor.bind({asio::ip::address_v4(local.address), local.port});
  acceptor.listen();
  local_ = {local.address, acceptor.local_endpoint().port()};
  impl_->Accept();
}

// Each connection is closed by name: where a socket is merely destroyed, Asio takes back how it was
// to be closed, and the port would stay taken.
HttpServer::~HttpServer() {
  for (const auto& one : impl_->connections) {
    if (const auto connection = one.lock()) connection->Close();
  }
}

void HttpServer::Run() {
  impl_->context.run();
}

void HttpServer::Stop() {
  impl_->context.stop();
}

void HttpServer::Poll() {
  impl_->context.poll();
}

size_t HttpServer::Viewers() const {
  return impl_->viewers;
}

void HttpServer::Publish(std::string line) {
  auto shared = std::make_shared<const std::string>("data: " + std::move(line) + "\n\n");
  asio::post(impl_->context, [this, shared = std::move(shared)] {
    for (const auto& one : impl_->connections) {
      if (const auto connection = one.lock()) connection->Offer(shared);
    }
  });
}

}  // namespace ctl
