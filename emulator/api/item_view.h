#pragma once

#include "api/call.h"
#include "api/item_field.h"
#include "base/json.h"
#include "store/item_store.h"

#include <optional>
#include <string>
#include <vector>

namespace tarvex::emulator {

/// The `order` member of listings by offset.
[[nodiscard]] json_ptr item_order_json();

/// `{"type":"user","id":..,"name":..,"login":..}`.
[[nodiscard]] json_ptr user_mini_json(const user& shown);

/// Writes items as JSON the way one request wants them. Used inside a transaction.
class item_view {
 public:
  /// Takes the `fields` of the request.
  explicit item_view(const call& of);

  /// The fields asked for; without any the standard set.
  [[nodiscard]] json_ptr single(const item& subject);

  /// The fields asked for; without any the mini set.
  [[nodiscard]] json_ptr listed(const item& subject);

  /// The mini set, whatever was asked for.
  [[nodiscard]] json_ptr mini(const item& subject);

  /// The mini set and the parent, as events show items.
  [[nodiscard]] json_ptr with_parent(const item& subject);

  /// `{"total_count":1,"entries":[...]}`, as uploads answer.
  [[nodiscard]] json_ptr entries_of_one(const item& subject);

  // For the rows of the table of fields.
  [[nodiscard]] json_ptr parent_of(const item& subject);
  [[nodiscard]] json_ptr path_of(const item& subject);
  [[nodiscard]] json_ptr contents_of(const item& subject);
  [[nodiscard]] json_ptr metadata_of(const item& subject);
  [[nodiscard]] json_ptr user_json() const;
  [[nodiscard]] json_ptr owner_json(const item& subject) const;
  [[nodiscard]] const call& of() const { return of_; }
  [[nodiscard]] const settings& set() const { return of_.set; }

 private:
  [[nodiscard]] json_ptr whole_set(const item& subject, bool standard);
  [[nodiscard]] json_ptr asked(const item& subject);

  const call& of_;
  bool has_fields_ = false;
  std::vector<const item_field*> fields_;  // those asked for, in the order of the table
  std::vector<std::string> templates_;     // "global.properties" and others of "metadata."
  std::optional<std::int64_t> parent_id_;  // of parent_: the parents in a listing are all the same
  json_ptr parent_;
};

}  // namespace tarvex::emulator
