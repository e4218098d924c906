#pragma once

#include "broker/renewal.h"
#include "config/configuration.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tarvex::server {

/// The accounts' tokens: of all who want one account's at a time, one asks. The broker's main thread, which it does not
/// hold up.
class renewals {
 public:
  /// Takes a pair, or why there is none.
  using taker = std::function<void(const renewal_answer& answer)>;

  renewals(boost::asio::io_context& loop, const configuration& config, int cancel_fd);
  ~renewals();
  renewals(const renewals&) = delete;
  renewals& operator=(const renewals&) = delete;

  /// Opens the store. \return what is wrong; empty: nothing, or there is no broker in the configuration.
  [[nodiscard]] std::string open();

  /// Has the account's token given to `take`, renewed where that is needed.
  /// \param refused  generation of a token that Box does not take; 0: none
  /// \param alone    nobody else has the account's token in use, so that to renew it early harms nobody
  void want(const std::string& name, std::uint64_t refused, bool alone, taker take);
  /// The pair of that generation has served: the one before it is not needed any more.
  void note_used(const std::string& name, std::uint64_t generation);

  /// Makes broken attempts again.
  void recover();
  /// Renews what would die for want of use.
  /// \param in_use  whether an account has sessions, which renew for themselves
  void renew_idle(std::function<bool(const std::string& name)> in_use);

 private:
  struct wish {
    std::uint64_t refused;
    bool alone;
    taker take;
  };

  /// Reads all records on a thread of the pool; `found` is called on the main thread.
  void look_through(std::function<bool(const token_record& record)> wanted,
                    std::function<void(const std::string& name, std::uint64_t generation)> found);
  void begin(const std::string& name);
  void end(const std::string& name, renewal_answer answer, std::vector<wish> wishes);
  renewal_setup setup();

  boost::asio::io_context& loop_;
  const configuration& config_;
  const int cancel_fd_;
  const token_endpoint endpoint_;
  token_store store_;
  boost::asio::thread_pool threads_;
  std::map<std::string, std::vector<wish>> waiting_;  ///< of accounts that somebody is at work for, and since then
};

/// The app of [box], with its secret as the file has it now. \return what is wrong; empty: nothing.
[[nodiscard]] std::string configured_app(const configuration& config, oauth_app& out);
[[nodiscard]] token_endpoint configured_endpoint(const configuration& config);

}  // namespace tarvex::server
