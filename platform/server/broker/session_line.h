#pragma once

#include "tarvex_common.hpp"

#include <boost/asio/ip/address.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include <cstdint>
#include <string>

namespace tarvex::server {

/// A session's connection, as the broker has it.
struct session_line {
  session_line(boost::asio::io_context& loop, std::uint64_t number, int socket) : id(number), end(loop, socket) {}

  const std::uint64_t id;  ///< the listener's number for it
  boost::asio::posix::stream_descriptor end;
  boost::asio::ip::address address;  ///< of the client, as the listener has it
  std::string account;               ///< that it is bound to, for ever; empty: to none yet
  bool logged_in = false;
  std::uint64_t last_question = 0;  ///< id of the last one
  bool busy = false;                ///< a login is being checked
  unsigned refusals = 0;            ///< logins that were wrong
  unsigned refused_tokens = 0;      ///< of this account's, by what the session says
  std::uint64_t unused = 0;         ///< generation that was given and waits for its first use; 0: none
};

}  // namespace tarvex::server
