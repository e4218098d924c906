#include "traffic/fault_list.h"

namespace tarvex::emulator {

std::string fault_list::add(const json_t* rows) {
  std::vector<fault> added;
  const std::size_t count = json_is_array(rows) ? json_array_size(rows) : 1;
  for (std::size_t i = 0; i < count; ++i) {
    const json_t* row = json_is_array(rows) ? json_array_get(rows, i) : rows;
    if (std::string refusal = fault_parse(row, added.emplace_back()); !refusal.empty()) return refusal;
  }
  // Numbered and added in one go: a half-added list would strike before its tester knows of it.
  const std::lock_guard lock(mutex_);
  for (fault& each : added) {
    each.action.number = next_++;
    faults_.push_back(std::move(each));
  }
  return {};
}

std::optional<fault_action> fault_list::match(const request& in, std::int64_t seed) {
  const std::lock_guard lock(mutex_);
  for (fault& candidate : faults_) {
    if (candidate.take(in, seed)) return candidate.action;
  }
  return std::nullopt;
}

json_ptr fault_list::list() const {
  const std::lock_guard lock(mutex_);
  json_ptr rows(json_array());
  for (const fault& each : faults_) {
    json_ptr row(json_deep_copy(each.action.row.get()));
    json_put(row.get(), "number", each.action.number);
    json_put(row.get(), "matched", each.matched);
    json_put(row.get(), "used", each.used);
    json_add(rows.get(), std::move(row));
  }
  return rows;
}

void fault_list::clear() {
  const std::lock_guard lock(mutex_);
  faults_.clear();
}

}  // namespace tarvex::emulator
