#include "box/app_list.h"

#include <iterator>

namespace tarvex::emulator {

std::string app_list::add(const json_t* rows) {
  std::vector<app> added;
  const std::size_t count = json_is_array(rows) ? json_array_size(rows) : 1;
  for (std::size_t i = 0; i < count; ++i) {
    const json_t* row = json_is_array(rows) ? json_array_get(rows, i) : rows;
    if (std::string refusal = app_parse(row, added.emplace_back()); !refusal.empty()) return refusal;
  }
  const std::lock_guard lock(mutex_);
  for (app& each : added) {
    std::erase_if(apps_, [&](const app& known) { return known.client_id == each.client_id; });
    apps_.push_back(std::move(each));
  }
  return {};
}

std::optional<app> app_list::find(std::string_view client_id) const {
  const std::lock_guard lock(mutex_);
  if (apps_.empty() && !client_id.empty()) {
    return app{.client_id = std::string(client_id), .name = std::string(client_id)};
  }
  for (const app& known : apps_) {
    if (known.client_id == client_id) return known;
  }
  return std::nullopt;
}

}  // namespace tarvex::emulator
