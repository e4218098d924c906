#include "storage/disposal.h"

#include <chrono>
#include <new>
#include <system_error>
#include <utility>

namespace tarvex::server {

void disposal::take(std::shared_ptr<void> what) try {
  std::erase_if(under_way_,
                [](const auto& each) { return each.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
  under_way_.reserve(under_way_.size() + 1);
  under_way_.push_back(std::async(std::launch::async, [what = std::move(what)]() mutable { what.reset(); }));
} catch (const std::system_error&) {  // what was to be destroyed went with the call
} catch (const std::bad_alloc&) {     // or goes with this one
}

}  // namespace tarvex::server
