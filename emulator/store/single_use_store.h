#pragma once

#include "store/database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// What a person's consent gave: whose it is and who may redeem it.
struct authorisation_code {
  std::string client = {};
  std::string redirect = {};  // the redirect_uri of the authorise request
  std::int64_t user = 0;
  std::int64_t expires_at = 0;
  bool spent = false;
};

/// What is taken once: authorisation codes, and the ids of JWT assertions. Every call is made inside a transaction on
/// the database.
class single_use_store {
 public:
  explicit single_use_store(database& on) : on_(on) {}

  /// Codes are kept as digests only.
  void add_code(std::string_view code, const authorisation_code& about);
  [[nodiscard]] std::optional<authorisation_code> find_code(std::string_view code);
  void spend_code(std::string_view code);

  /// Enters an assertion's id; false when this client's has come before. Forgets those that expired before `now`.
  [[nodiscard]] bool spend_assertion(std::string_view client, std::string_view jti, std::int64_t expires_at,
                                     std::int64_t now);

 private:
  database& on_;
};

}  // namespace tarvex::emulator
