#pragma once

#include "base/secret.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tarvex::server {

/// How requests to Box go out. Empty texts: the system's authorities, no proxy.
struct https_setup {
  std::string ca_file;
  std::string proxy;
};

struct https_request {
  std::string url;
  const std::string* form = nullptr;  ///< null: a GET; else the body of a POST (application/x-www-form-urlencoded)
  std::string bearer = {};            ///< token for the Authorization header; empty: none
  std::chrono::seconds limit{30};     ///< for all of it
  int cancel_fd = -1;                 ///< readable: give it up; -1: nothing can
};

/// What came back.
struct https_answer {
  int status = 0;                                     ///< 0: none came, and `error` says why
  std::string error = {};                             ///< one line, without any secret
  secret body = {};                                   ///< up to ANSWER_MAX bytes; a longer one is an error
  std::optional<std::chrono::sys_seconds> date = {};  ///< of the answer
  std::optional<unsigned> retry_after_s = {};

  static constexpr std::size_t ANSWER_MAX = std::size_t{64} * 1024;
};

/// Makes a request of Box's sign-in or API and waits for its answer. Redirects are not followed. Any thread.
[[nodiscard]] https_answer https_ask(const https_setup& setup, const https_request& request);

/// A form of names and values (application/x-www-form-urlencoded).
[[nodiscard]] secret form_encode(const std::vector<std::pair<std::string, std::string>>& pairs);

/// A text as part of a query (RFC 3986 section 2.1).
[[nodiscard]] std::string query_encode(const std::string& text);

}  // namespace tarvex::server
