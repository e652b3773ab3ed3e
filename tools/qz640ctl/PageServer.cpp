#include "PageServer.h"

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/read_until.hpp>
#include <asio/socket_base.hpp>
#include <asio/steady_timer.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <atomic>
#include <cctype>
#include <list>
#include <optional>
#include <random>
#include <utility>

#include "wire/Loop.h"

namespace ctl {

namespace {

using asio::ip::tcp;

// For a request to come in, and for bytes to be taken.
constexpr auto kPatience = std::chrono::seconds(10);
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
    return std::tolower(x) == std::tolower(y);
  });
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
    text.remove_suffix(1);
  return text;
}

// The field's value; nothing where it is missing or comes twice with different values.
std::optional<std::string_view> FieldOf(std::string_view head, std::string_view name) {
  std::optional<std::string_view> value;
  size_t begin = head.find('\n');
  while (begin != std::string_view::npos) {
    const size_t end = std::min(head.find('\n', begin + 1), head.size());
    const std::string_view line = head.substr(begin + 1, end - begin - 1);
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos && EqualsIgnoringCase(line.substr(0, colon), name)) {
      const std::string_view found = Trim(line.substr(colon + 1));
      if (value && *value != found) return std::nullopt;
      value = found;
    }
    begin = end < head.size() ? end : std::string_view::npos;
  }
  return value;
}

bool IsAddressOrLocal(std::string_view host) {
  const size_t colon = host.rfind(':');
  if (wire::Endpoint::Parse(host)) return true;
  return EqualsIgnoringCase(host.substr(0, colon), "localhost");
}

// Unguessable, for the one answer that it stands in.
std::string MakeNonce() {
  std::random_device random;
  std::string nonce;
  for (int i = 0; i < 32; ++i)
    nonce += "0123456789abcdef"[random() % 16];
  return nonce;
}

HttpAnswer Whole(const char* status, const char* type, const std::string& more,
                 const std::string& body) {
  return {false, std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
                     "; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
                     "\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n" +
                     "Referrer-Policy: no-referrer\r\nConnection: close\r\n" + more + "\r\n" +
                     body};
}

HttpAnswer Refusal(const char* status, const std::string& text, const std::string& more = {}) {
  return Whole(status, "text/plain", more, text + "\n");
}

HttpAnswer PageAnswer(std::string_view page) {
  constexpr std::string_view kPlace = "NONCE";
  const std::string nonce = MakeNonce();
  std::string body(page);
  for (size_t at = body.find(kPlace); at != std::string::npos; at = body.find(kPlace, at))
    body.replace(at, kPlace.size(), nonce);
  return Whole("200 OK", "text/html",
               "Content-Security-Policy: default-src 'none'; script-src 'nonce-" + nonce +
                   "'; style-src 'nonce-" + nonce +
                   "'; connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors "
                   "'none'\r\n",
               body);
}

}  // namespace

HttpAnswer AnswerTo(std::string_view head, std::string_view page) {
  const std::string_view line = Trim(head.substr(0, head.find('\n')));
  const size_t first = line.find(' ');
  const size_t second = first == std::string_view::npos ? first : line.find(' ', first + 1);
  if (second == std::string_view::npos || !line.substr(second + 1).starts_with("HTTP/1.")) {
    return Refusal("400 Bad Request", "This is no HTTP/1.1 request.");
  }
  const std::string_view method = line.substr(0, first);
  const std::string_view target = line.substr(first + 1, second - first - 1);
  const auto host = FieldOf(head, "Host");
  if (!host || !IsAddressOrLocal(*host)) {
    return Refusal("403 Forbidden", "Ask for this page by the machine's IPv4 address.");
  }
  const auto site = FieldOf(head, "Sec-Fetch-Site");
  const bool typedIn = !site || *site == "none" || *site == "same-origin";
  if (method != "GET") {
    return Refusal("405 Method Not Allowed", "There is GET alone.", "Allow: GET\r\n");
  }
  if (target == "/") return PageAnswer(page);
  if (target != "/events") return Refusal("404 Not Found", "There is / alone.");
  if (!typedIn) return Refusal("403 Forbidden", "Another site's page may not ask for this.");
  return {true,
          "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-store\r\n"
          "X-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\n"};
}

namespace {
class Connection;
}

// All of it but the count is used on the server's thread alone.
struct PageServer::Impl {
  void Accept();

  std::atomic<size_t> viewers{0};  // outlives the connections, which the context holds
  std::string_view page;
  asio::io_context context;
  tcp::acceptor acceptor{context};
  asio::steady_timer pause{context};
  std::list<std::weak_ptr<Connection>> connections;
};

namespace {

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(PageServer::Impl& server, tcp::socket socket)
      : server_(server),
        socket_(std::move(socket)),
        timer_(socket_.get_executor()),
        request_(PageServer::kMostHead) {
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
                             if (!error) self->Answer(size);
                             if (error == asio::error::not_found) self->RefuseLongHead();
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
    HttpAnswer answer = AnswerTo(head, server_.page);
    if (answer.events && server_.viewers >= PageServer::kMostViewers) {
      answer = Refusal("503 Service Unavailable",
                       std::to_string(PageServer::kMostViewers) + " pages are open; close one.");
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

  // Who was answered closes the connection, as the answer asks for. Were it closed from here, the
  // port would stay taken for a minute after this program has ended (RFC 9293, TIME-WAIT).
  void End() {
    if (viewing_) return Close();
    SetDeadline();
    WatchForEnd();
  }

  PageServer::Impl& server_;
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
void PageServer::Impl::Accept() {
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

PageServer::PageServer(const wire::Endpoint& local, std::string_view page)
    : impl_(std::make_unique<Impl>()) {
  impl_->page = page;
  tcp::acceptor& acceptor = impl_->acceptor;
  try {
    acceptor.open(tcp::v4());
    acceptor.bind({asio::ip::address_v4(local.address), local.port});
    acceptor.listen();
    local_ = {local.address, acceptor.local_endpoint().port()};
  } catch (const std::system_error& error) {
    throw wire::SocketError("can't listen on " + local.ToText() + ": " + error.code().message());
  }
  impl_->Accept();
  thread_ = std::thread([this] { impl_->context.run(); });
}

PageServer::~PageServer() {
  impl_->context.stop();
  thread_.join();
}

size_t PageServer::Viewers() const {
  return impl_->viewers;
}

void PageServer::Publish(std::string line) {
  auto shared = std::make_shared<const std::string>("data: " + std::move(line) + "\n\n");
  asio::post(impl_->context, [this, shared = std::move(shared)] {
    for (const auto& one : impl_->connections) {
      if (const auto connection = one.lock()) connection->Offer(shared);
    }
  });
}

}  // namespace ctl
