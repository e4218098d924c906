#pragma once

#include "exchange.h"
#include "tarvex_dsi_rest.h"
#include "tarvex_exchange.h"

#include <chrono>

namespace tarvex::rest {

/// Tells the host program of one exchange, when it has registered for that.
class exchange_report {
 public:
  /// Everything is borrowed for the report's life.
  /// \param reader  of the answer's body
  exchange_report(const char* method, const target& where, const tarvex_dsi_rest_key_array_t* headers,
                  tarvex_dsi_rest_read_t reader);

  /// Asks whether the request may go out. \return the host's error when it may not.
  [[nodiscard]] tarvex_result_t ask() const;
  /// Tells how it ended.
  void tell(const exchange& over);

 private:
  const tarvex_exchange_observer_t* const observer_;  ///< null: nobody listens
  const std::string host_;
  const std::string path_;
  tarvex_exchange_t about_{};
  const std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
};

}  // namespace tarvex::rest
