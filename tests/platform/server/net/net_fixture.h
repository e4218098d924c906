#pragma once

#include "net/event_loop.h"

#include <gtest/gtest.h>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/use_future.hpp>

#include <chrono>
#include <exception>
#include <future>
#include <optional>
#include <string>
#include <utility>

namespace tarvex::server::test {

using boost::asio::ip::tcp;

/// An event loop that the test turns itself, and sockets of clients on loopback.
class NetTest : public ::testing::Test {
 protected:
  static constexpr std::chrono::seconds PATIENCE{20};

  /// Turns the loop until `holds` does. \return false when it does not for too long.
  template <typename Condition>
  bool until(Condition holds) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!holds()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      loop.context().run_one_for(std::chrono::milliseconds(5));
    }
    return true;
  }

  /// Turns the loop for a while in which nothing is to happen.
  void idle(std::chrono::milliseconds time) { loop.context().run_for(time); }

  /// Begins to await; the result is there once the loop was turned.
  template <typename T>
  std::future<T> begin(boost::asio::awaitable<T> awaited) {
    return boost::asio::co_spawn(loop.context(), std::move(awaited), boost::asio::use_future);
  }

  template <typename T>
  static bool is_there(const std::future<T>& result) {
    return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }

  /// Awaits. \return a value as if nothing had happened when it takes too long.
  template <typename T>
  T await(boost::asio::awaitable<T> awaited) {
    std::future<T> result = begin(std::move(awaited));
    const bool came = until([&] { return is_there(result); });
    EXPECT_TRUE(came) << "still waiting";
    return came ? result.get() : T{};
  }

  /// A connection: the server's end, and the client's, which does not block.
  std::pair<tcp::socket, tcp::socket> connected() {
    tcp::acceptor acceptor(loop.context(), {boost::asio::ip::address_v4::loopback(), 0});
    tcp::socket client(loop.context());
    client.connect(acceptor.local_endpoint());
    tcp::socket server = acceptor.accept();
    client.non_blocking(true);
    return {std::move(server), std::move(client)};
  }

  /// All that the client can read, until `bytes` are there, or the end has come.
  std::string read(tcp::socket& client, std::size_t bytes = SIZE_MAX) {
    std::string all;
    const bool came = until([&] {
      boost::system::error_code error;
      char buffer[65536];
      all.append(buffer, client.read_some(boost::asio::buffer(buffer), error));
      return all.size() >= bytes || (error && error != boost::asio::error::would_block);
    });
    EXPECT_TRUE(came) << "nothing more comes";
    return all;
  }

  /// Writes all, while the loop takes it in.
  void write(tcp::socket& client, std::string_view bytes) {
    EXPECT_TRUE(until([&] {
      boost::system::error_code error;
      bytes.remove_prefix(client.write_some(boost::asio::buffer(bytes), error));
      return bytes.empty() || (error && error != boost::asio::error::would_block);
    })) << "the server reads nothing";
  }

  static void reset(tcp::socket& client) {
    client.set_option(boost::asio::socket_base::linger(true, 0));
    client.close();
  }

  event_loop loop;
};

}  // namespace tarvex::server::test
