// The page that "web" shows: how many may look.
#include "PageServer.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/read_until.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <list>

namespace ctl {
namespace {

using asio::ip::tcp;

// A forgotten tab costs a place until it is closed, and the next one that asks gets a word.
TEST(PageServer, TakesSixteenPagesAndGivesAPlaceBackWhereOneCloses) {
  const PageServer server({"127.0.0.1", 0}, "a page");
  asio::io_context context;
  std::list<tcp::socket> pages;
  const auto open = [&] {
    tcp::socket& page = pages.emplace_back(context);
    page.connect({asio::ip::address_v4::loopback(), server.Local().port});
    asio::write(page, asio::buffer(std::string("GET /events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")));
    asio::streambuf head;
    asio::read_until(page, head, "\r\n\r\n");
    return std::string(asio::buffers_begin(head.data()), asio::buffers_end(head.data()))
        .substr(9, 3);
  };
  for (size_t i = 0; i < HttpServer::kMostViewers; ++i)
    EXPECT_EQ(open(), "200") << i;
  EXPECT_EQ(open(), "503");
  pages.pop_front();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  std::string status;
  while ((status = open()) != "200" && std::chrono::steady_clock::now() < deadline)
    pages.pop_back();
  EXPECT_EQ(status, "200");
}

}  // namespace
}  // namespace ctl
