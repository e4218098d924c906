#pragma once

#include "broker/renewals.h"
#include "broker/session_line.h"
#include "config/accounts_cache.h"
#include "config/configuration.h"
#include "link/connection_note.h"
#include "link/messages.h"
#include "tarvex_common.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tarvex::server {

/// What the broker's process does: it alone reads the accounts file and the store, checks logins, and gives each
/// session the credential of the one account that it has logged in. One thread, beside those that compute password
/// hashes and wait for Box.
class broker_service {
 public:
  /// \param config   outlives it
  /// \param control  this end of the connection to the listener
  broker_service(const configuration& config, descriptor control);
  ~broker_service();
  broker_service(const broker_service&) = delete;
  broker_service& operator=(const broker_service&) = delete;

  /// Reads the accounts and opens the store. \return what is wrong; empty: it can run.
  [[nodiscard]] std::string open();

  /// Serves until the listener's end of the control connection is closed. Tells the listener first that it is ready.
  void run();

 private:
  using line_ptr = std::shared_ptr<session_line>;
  using account_ptr = std::shared_ptr<const account>;

  void watch_control();
  void read_control();
  void adopt(connection_note note, descriptor socket);
  void watch(const line_ptr& line);
  void read(const line_ptr& line);
  void drop(const line_ptr& line);
  void take(const line_ptr& line, session_says said);
  void say(const line_ptr& line, const broker_says& what);
  void tell_listener(const session_line& line);

  void begin_login(const line_ptr& line, session_says said);
  void end_login(const line_ptr& line, std::uint64_t id, const std::string& name, const account_ptr& who);
  void give_credential(const line_ptr& line, const session_says& said);
  void give_record(const line_ptr& line, std::uint64_t id, const account& of, const renewal_answer& answer);
  void give_file(const line_ptr& line, std::uint64_t id, const account& of, std::uint64_t refused);
  std::size_t sessions_of(const std::string& account) const;

  void look_at_accounts();
  void look_at_records();
  void every(boost::asio::steady_timer& timer, std::chrono::milliseconds interval, void (broker_service::*look)());

  const configuration& config_;
  boost::asio::io_context loop_;
  boost::asio::posix::stream_descriptor control_;
  descriptor cancelled_;  ///< readable once the broker is to end
  accounts_cache cache_;
  renewals renewals_;
  boost::asio::thread_pool hashing_;
  boost::asio::steady_timer accounts_timer_, records_timer_;
  std::map<std::uint64_t, line_ptr> lines_;
};

}  // namespace tarvex::server
