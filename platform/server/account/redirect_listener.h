#pragma once

#include "account/sign_in_link.h"
#include "tarvex_common.hpp"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// A web server of one page, on loopback addresses of this host alone: where a browser comes back to after a consent.
/// One thread.
class redirect_listener {
 public:
  /// Listens where the redirect's host points, on its port or a free one. Throws account_failure.
  explicit redirect_listener(const redirect_address& redirect);

  [[nodiscard]] std::uint16_t port() const { return port_; }

  /// Serves until a browser brings the answer to the question with this state. That browser goes on waiting: `show` is
  /// what it gets. Requests of others are answered with an error page.
  /// \return granted or denied. Throws account_failure when the time is up.
  [[nodiscard]] redirect_answer wait(std::string_view state, std::chrono::seconds limit);

  /// Shows the browser that brought the answer a page with one line of text.
  void show(bool good, std::string_view text);

 private:
  struct visitor {
    descriptor socket;
    std::string request;
    std::chrono::steady_clock::time_point until;
  };

  void take_visitors(int listening);
  /// \return true when it brought the answer, which is in `out`.
  bool serve(visitor& who, std::string_view state, redirect_answer& out);

  const redirect_address redirect_;
  std::uint16_t port_ = 0;
  std::vector<descriptor> listening_;
  std::vector<visitor> visitors_;
  descriptor waiting_;  ///< the browser that brought the answer
};

}  // namespace tarvex::server
