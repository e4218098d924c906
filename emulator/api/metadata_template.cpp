#include "api/metadata_template.h"

#include "api/page.h"
#include "base/text.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::string_view TEMPLATE_KIND = "template";
constexpr std::string_view FIELD_TYPES[] = {"string", "float", "date", "enum", "multiSelect"};
constexpr const char* GLOBAL_ID = "6bcba49f-ca6d-4d2a-a758-57fe6edf44d0";

json_ptr global_template() {
  return json_ptr(json_pack("{s:s,s:s,s:s,s:s,s:s,s:b,s:b,s:[]}", "id", GLOBAL_ID, "type", "metadata_template", "scope",
                            "global", "templateKey", "properties", "displayName", "properties", "hidden", 0,
                            "copyInstanceOnItemCopy", 1, "fields"));
}

problem missing_template(const std::string& name) {
  return short_problem(404, "not_found", "Template " + name + " not found");
}

/// One field with ids for itself and its options. Throws 400.
json_ptr field_taken(const json_t* given) {
  call_check_members(given, "type key displayName description hidden options");
  const auto type = json_text_at(given, "type").value_or("");
  require(std::find(std::begin(FIELD_TYPES), std::end(FIELD_TYPES), type) != std::end(FIELD_TYPES),
          "The type of a field is string, float, date, enum or multiSelect");
  json_ptr field(json_deep_copy(given));
  const auto name = json_text_at(given, "displayName").value_or("");
  if (!json_text_at(given, "key")) json_put(field.get(), "key", name);
  require(!json_text_at(field.get(), "key").value_or("").empty(), "A field needs a 'key' or a 'displayName'");
  json_put(field.get(), "id", random_hex(16));
  json_t* options = json_object_get(field.get(), "options");
  for (std::size_t i = 0; i < json_array_size(options); ++i) {
    json_put(json_array_get(options, i), "id", random_hex(16));
  }
  return field;
}

/// Letters and digits of the display name stand for a key that was not given.
std::string key_for(const json_t* body) {
  if (auto key = json_text_at(body, "templateKey")) return *key;
  std::string key;
  for (const char c : json_text_at(body, "displayName").value_or("")) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) key += c;
  }
  return key;
}

bool has_option(const json_t* field, const json_t* value) {
  const json_t* options = json_object_get(field, "options");
  for (std::size_t i = 0; i < json_array_size(options); ++i) {
    if (json_equal(json_object_get(json_array_get(options, i), "key"), value) == 1) return true;
  }
  return false;
}

bool fits_field(const json_t* field, const json_t* value) {
  const std::string type = json_text_at(field, "type").value_or("");
  if (type == "float") return json_is_number(value);
  if (type == "enum") return json_is_string(value) && has_option(field, value);
  if (type != "multiSelect") return json_is_string(value);
  bool all = json_is_array(value);
  for (std::size_t i = 0; i < json_array_size(value); ++i) all = all && has_option(field, json_array_get(value, i));
  return all;
}

record template_named(const call& of) {
  const auto scope = metadata_scope(of.ids.at(0));
  auto found = scope == ENTERPRISE_SCOPE ? of.box.records.first(TEMPLATE_KIND, of.ids.at(1)) : std::nullopt;
  if (!found) throw missing_template(of.ids[0] + "." + of.ids[1]);
  return std::move(*found);
}

}  // namespace

std::optional<std::string> metadata_scope(std::string_view given) {
  if (given == "global") return "global";
  if (given == "enterprise" || given == ENTERPRISE_SCOPE) return std::string(ENTERPRISE_SCOPE);
  return std::nullopt;
}

json_ptr metadata_template_json(const call& of, const std::string& scope, const std::string& key) {
  if (scope == "global") return key == "properties" ? global_template() : nullptr;
  auto found = of.box.records.first(TEMPLATE_KIND, key);
  return found ? std::move(found->value) : nullptr;
}

std::string metadata_value_refusal(const json_t* shape, const char* key, const json_t* value) {
  const std::string name = std::string("Value of '") + key + "' ";
  if (key[0] == '$') return name + "is Box's own";
  const json_t* fields = json_object_get(shape, "fields");
  // The global template takes any key, and texts only.
  if (json_text_at(shape, "scope") == "global") return json_is_string(value) ? "" : name + "must be a string";
  for (std::size_t i = 0; i < json_array_size(fields); ++i) {
    const json_t* field = json_array_get(fields, i);
    if (json_text_at(field, "key") == key) return fits_field(field, value) ? "" : name + "does not fit its field";
  }
  return name + "is in no field of the template";
}

response metadata_template_get(call& of) {
  transaction hold(of.box.data);
  const auto scope = metadata_scope(of.ids.at(0));
  const json_ptr found = scope ? metadata_template_json(of, *scope, of.ids.at(1)) : nullptr;
  if (!found) throw missing_template(of.ids[0] + "." + of.ids[1]);
  return response_json(200, found.get());
}

response metadata_template_by_id(call& of) {
  if (of.ids.at(0) == GLOBAL_ID) return response_json(200, global_template().get());
  transaction hold(of.box.data);
  for (const record& each : of.box.records.list(TEMPLATE_KIND)) {
    if (json_text_at(each.value.get(), "id") == of.ids[0]) return response_json(200, each.value.get());
  }
  throw missing_template(of.ids[0]);
}

response metadata_templates_global(call& of) {
  return page_answer(of, std::vector<int>{0}, [](int) { return global_template(); });
}

response metadata_templates_enterprise(call& of) {
  transaction hold(of.box.data);
  return page_answer(of, of.box.records.list(TEMPLATE_KIND),
                     [](const record& each) { return json_ptr(json_incref(each.value.get())); });
}

response metadata_template_create(call& of) {
  const json_ptr body = of.body_object();
  call_check_members(body.get(), "scope templateKey displayName hidden fields copyInstanceOnItemCopy");
  require(json_text_at(body.get(), "scope") == "enterprise", "'scope' must be enterprise");
  const std::string key = key_for(body.get());
  require(!key.empty(), "'displayName' is required");
  json_ptr made(json_deep_copy(body.get()));
  json_ptr fields(json_array());
  const json_t* given = json_object_get(body.get(), "fields");
  for (std::size_t i = 0; i < json_array_size(given); ++i)
    json_add(fields.get(), field_taken(json_array_get(given, i)));
  json_put(made.get(), "fields", std::move(fields));
  json_put(made.get(), "id", random_hex(16));
  json_put(made.get(), "type", "metadata_template");
  json_put(made.get(), "scope", ENTERPRISE_SCOPE);
  json_put(made.get(), "templateKey", key);
  for (const char* flag : {"hidden", "copyInstanceOnItemCopy"}) {
    json_put(made.get(), flag, json_ptr(json_boolean(json_is_true(json_object_get(body.get(), flag)))));
  }
  transaction hold(of.box.data);
  if (of.box.records.first(TEMPLATE_KIND, key)) throw short_problem(409, "conflict", "The template exists");
  response answer = response_json(201, made.get());
  (void)of.box.records.create(TEMPLATE_KIND, {.owner = of.me.id, .subject = key, .value = std::move(made)});
  hold.commit();
  return answer;
}

response metadata_template_delete(call& of) {
  transaction hold(of.box.data);
  const record gone = template_named(of);
  of.box.records.remove(gone.id);
  of.box.metadata.remove_all(std::string(ENTERPRISE_SCOPE) + "." + gone.subject);
  hold.commit();
  return response_empty(204);
}

}  // namespace tarvex::emulator
