#pragma once

#include <future>
#include <memory>
#include <vector>

namespace tarvex::server {

/// Destroys what takes long to destroy on threads of its own, so that nobody waits for it. One thread at a time.
class disposal {
 public:
  disposal() = default;
  disposal(const disposal&) = delete;
  disposal& operator=(const disposal&) = delete;
  /// Waits until all is destroyed.
  ~disposal() = default;

  /// Lets go of `what`; here and now when no thread can be had.
  void take(std::shared_ptr<void> what);

 private:
  std::vector<std::future<void>> under_way_;
};

}  // namespace tarvex::server
