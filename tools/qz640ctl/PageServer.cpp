#include "PageServer.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <random>
#include <system_error>
#include <utility>

#include "wire/Loop.h"

namespace ctl {

namespace {

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

// Can't be guessed, and serves one answer alone.
std::string MakeNonce() {
  std::random_device random;
  std::string nonce;
  for (int i = 0; i < 32; ++i)
    nonce += "0123456789abcdef"[random() % 16];
  return nonce;
}

HttpAnswer PageAnswer(std::string_view page) {
  constexpr std::string_view kPlace = "NONCE";
  const std::string nonce = MakeNonce();
  std::string body(page);
  for (size_t at = body.find(kPlace); at != std::string::npos; at = body.find(kPlace, at))
    body.replace(at, kPlace.size(), nonce);
  return WholeAnswer(
      "200 OK", "text/html",
      "Content-Security-Policy: default-src 'none'; script-src 'nonce-" + nonce +
          "'; style-src 'nonce-" + nonce +
          "'; connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors "
          "'none'\r\n",
      body);
}

// `head` is a request's head up to its empty line. Another site's script that had its name lead to
// this server would be let in by the browser, so the page is to be asked for by address or as
// localhost, and its events by no other site's page.
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

HttpServer Listen(const wire::Endpoint& local, std::string_view page) {
  try {
    return HttpServer(local, [page](std::string_view head) { return AnswerTo(head, page); });
  } catch (const std::system_error& error) {
    throw wire::SocketError("can't listen on " + local.ToText() + ": " + error.code().message());
  }
}

}  // namespace

PageServer::PageServer(const wire::Endpoint& local, std::string_view page)
    : server_(Listen(local, page)), thread_([this] { server_.Run(); }) {}

PageServer::~PageServer() {
  server_.Stop();
  thread_.join();
}

}  // namespace ctl
