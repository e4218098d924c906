#include "api/shared_link.h"

#include "api/item_view.h"
#include "base/text.h"
#include "base/times.h"

#include <array>

namespace tarvex::emulator {
namespace {

constexpr std::string_view LINK_KIND = "shared_link";
constexpr std::size_t KEY_BYTES = 16;
constexpr std::array<std::string_view, 3> ACCESS = {"open", "company", "collaborators"};

std::string subject_of(const item& it) {
  return item_typed_id(it.type, it.id);
}

bool is_over(const call& of, const json_t* link) {
  const std::int64_t until = json_number_at(link, "until").value_or(0);
  return until != 0 && until <= of.now();
}

/// A permission, as it was given or as Box has it by default.
bool permission_of(const json_t* link, const char* name, bool otherwise) {
  const json_t* given = json_object_get(json_object_get(link, "permissions"), name);
  return given == nullptr ? otherwise : json_is_true(given);
}

json_ptr permissions_json(const json_t* link) {
  const bool download = permission_of(link, "can_download", true);
  return json_ptr(json_pack("{s:b,s:b,s:b}", "can_download", static_cast<int>(download), "can_preview", 1, "can_edit",
                            static_cast<int>(permission_of(link, "can_edit", false))));
}

/// Copies what a request may say of a link into what is kept of it. Throws 400.
void take_members(const json_t* wanted, json_t* link) {
  call_check_members(wanted, "access password unshared_at permissions vanity_name");
  if (const auto access = json_text_at(wanted, "access")) {
    require(std::find(ACCESS.begin(), ACCESS.end(), *access) != ACCESS.end(),
            "'access' is open, company or collaborators");
    json_put(link, "access", *access);
  }
  if (const json_t* password = json_object_get(wanted, "password")) {
    json_put(link, "password", json_is_string(password) ? json_string_value(password) : "");
  }
  if (json_object_get(wanted, "unshared_at") != nullptr) {
    json_put(link, "until", call_time(wanted, "unshared_at").value_or(0));
  }
  if (const json_t* permissions = json_object_get(wanted, "permissions")) {
    call_check_members(permissions, "can_download can_preview can_edit");
    json_put(link, "permissions", json_ptr(json_deep_copy(permissions)));
  }
  if (const auto vanity = json_text_at(wanted, "vanity_name")) json_put(link, "vanity_name", *vanity);
}

struct link_header {
  std::string url;
  std::string password;
};

/// "shared_link=https://...&shared_link_password=...", both as they stand or percent-encoded: clients do either.
link_header header_of(const call& of) {
  const std::string text = of.in.header("BoxApi").value_or("");
  constexpr std::string_view LINK = "shared_link=";
  constexpr std::string_view PASSWORD = "&shared_link_password=";
  require(text.starts_with(LINK), "A BoxApi header with shared_link=URL is required");
  const auto password = text.find(PASSWORD);
  link_header found{text.substr(LINK.size(), password == std::string::npos ? password : password - LINK.size()), ""};
  if (password != std::string::npos) found.password = text.substr(password + PASSWORD.size());
  return {percent_decode(found.url, false), percent_decode(found.password, false)};
}

}  // namespace

json_ptr shared_link_json(const call& of, const item& subject) {
  const auto held = of.box.records.first(LINK_KIND, subject_of(subject));
  if (!held || is_over(of, held->value.get())) return json_ptr(json_null());
  const json_t* link = held->value.get();
  const std::string key = json_text_at(link, "key").value_or("");
  const std::string access = json_text_at(link, "access").value_or("open");
  const std::int64_t until = json_number_at(link, "until").value_or(0);
  json_ptr shown(json_object());
  json_put(shown.get(), "url", of.origin({}) + "/s/" + key);
  json_put(shown.get(), "download_url",
           subject.type != item_type::FILE ? json_ptr(json_null())
                                           : json_string_of(of.origin({}) + "/shared/static/" + key));
  json_put(shown.get(), "vanity_url", json_ptr(json_null()));
  const auto vanity = json_text_at(link, "vanity_name");
  json_put(shown.get(), "vanity_name", vanity ? json_string_of(*vanity) : json_ptr(json_null()));
  json_put(shown.get(), "effective_access", access);
  json_put(shown.get(), "effective_permission",
           permission_of(link, "can_download", true) ? "can_download" : "can_preview");
  json_put(shown.get(), "is_password_enabled",
           json_ptr(json_boolean(!json_text_at(link, "password").value_or("").empty())));
  json_put(shown.get(), "unshared_at",
           until == 0 ? json_ptr(json_null()) : json_string_of(time_text(until, of.set.zone_offset_minutes)));
  json_put(shown.get(), "download_count", 0);
  json_put(shown.get(), "preview_count", 0);
  json_put(shown.get(), "access", access);
  json_put(shown.get(), "permissions", permissions_json(link));
  return shown;
}

void shared_link_apply(const call& of, const item& subject, const json_t* wanted) {
  auto held = of.box.records.first(LINK_KIND, subject_of(subject));
  if (json_is_null(wanted)) {
    if (held) of.box.records.remove(held->id);
    return;
  }
  require(json_is_object(wanted), "'shared_link' must be an object or null");
  if (!held) {
    json_ptr fresh(json_object());
    json_put(fresh.get(), "key", random_hex(KEY_BYTES));
    held = of.box.records.create(LINK_KIND,
                                 {.owner = of.me.id, .subject = subject_of(subject), .value = std::move(fresh)});
  }
  take_members(wanted, held->value.get());
  of.box.records.save(*held);
}

response shared_item_get(call& of) {
  const link_header asked = header_of(of);
  transaction hold(of.box.data);
  for (const record& each : of.box.records.list(LINK_KIND)) {
    const json_t* link = each.value.get();
    if (!asked.url.ends_with("/s/" + json_text_at(link, "key").value_or("")) || is_over(of, link)) continue;
    const auto found = of.box.items.find_typed(each.subject);
    const bool invited =
        json_text_at(link, "access").value_or("open") != "collaborators" || (found && found->owner == of.me.id);
    const bool knows = json_text_at(link, "password").value_or("") == asked.password;
    if (!found || found->trashed != item_trash::ACTIVE || !invited || !knows) break;
    return response_json(200, item_view(of).single(*found).get());
  }
  // A wrong password is told from a link that never was by nobody who does not know it.
  throw not_found_problem("shared_link", asked.url);
}

}  // namespace tarvex::emulator
