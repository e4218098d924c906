#include "api/metadata.h"

#include "api/access.h"
#include "api/json_patch.h"
#include "base/text.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_METADATA_BYTES = 1024UL * 1024;
constexpr const char* TEMPLATE_ID = "properties-6bcba49f-ca6d-4d2a-a758-57fe6edf44d0";

/// The item, and a look at scope and template: this Box has the one template that every account has. The short form of
/// error bodies below is the metadata service's own.
item subject_of(const call& of, item_type type) {
  item subject = call_item(of, type, of.id(0), "item");
  if (of.ids.at(1) != "global" || of.ids.at(2) != "properties") {
    throw short_problem(404, "instance_not_found", "Template " + of.ids[1] + "." + of.ids[2] + " not found");
  }
  if (subject.is_root()) throw short_problem(403, "forbidden", "The root folder takes no metadata");
  return subject;
}

problem missing_problem(const item& subject) {
  return short_problem(404, "instance_not_found",
                       "Instance global.properties not found for " + item_typed_id(subject.type, subject.id));
}

/// The template takes texts only, and leaves '$' names to Box.
void check_values(const json_t* object) {
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(object), key, value) {
    if (!json_is_string(value) || key[0] == '$') {
      throw short_problem(400, "schema_validation_failed", std::string("Value of '") + key + "' must be a string");
    }
  }
}

/// Null for what is not JSON; each call says in its own words what it wanted.
json_ptr parsed_body(call& of) {
  const std::string text = of.body_text(MAX_METADATA_BYTES);
  of.note_body(text);
  return json_parse(text);
}

response get(call& of, item_type type) {
  transaction hold(of.box.data);
  const item subject = subject_of(of, type);
  const json_ptr found = metadata_json(of, subject);
  if (!found) throw missing_problem(subject);
  return response_json(200, found.get());
}

response create(call& of, item_type type) {
  json_ptr body = parsed_body(of);
  transaction hold(of.box.data);
  const item subject = subject_of(of, type);
  access_require(of, subject, MAY_EDIT);
  if (!json_is_object(body.get())) throw short_problem(400, "bad_request", "The body must be a JSON object");
  check_values(body.get());
  if (of.box.metadata.find(subject)) {
    // Box's description says one thing, its answers of today another.
    const bool documented = of.set.metadata_conflict == "tuple_already_exists";
    throw short_problem(409, of.set.metadata_conflict,
                        documented ? "Tuple already exists" : "Conflict on Metadata Instance.");
  }
  of.box.metadata.save(subject, {std::move(body), 0, random_hex(16)});
  const json_ptr made = metadata_json(of, subject);
  hold.commit();
  return response_json(201, made.get());
}

response update(call& of, item_type type) {
  const json_ptr patch = parsed_body(of);
  transaction hold(of.box.data);
  const item subject = subject_of(of, type);
  access_require(of, subject, MAY_EDIT);
  const auto content_type = of.in.header("Content-Type").value_or("");
  if (!lower(content_type).starts_with("application/json-patch+json") || !json_patch_is_one(patch.get())) {
    throw short_problem(400, "bad_request", "The body must be a JSON patch, sent as application/json-patch+json");
  }
  auto held = of.box.metadata.find(subject);
  if (!held) throw missing_problem(subject);
  if (const std::string refusal = json_patch_apply(held->value.get(), patch.get()); !refusal.empty()) {
    throw short_problem(409, "failed_json_patch_application", refusal);
  }
  check_values(held->value.get());
  ++held->version;
  of.box.metadata.save(subject, *held);
  const json_ptr changed = metadata_json(of, subject);
  hold.commit();
  return response_json(200, changed.get());
}

response remove(call& of, item_type type) {
  transaction hold(of.box.data);
  const item subject = subject_of(of, type);
  access_require(of, subject, MAY_EDIT);
  if (!of.box.metadata.find(subject)) throw missing_problem(subject);
  of.box.metadata.remove(subject);
  hold.commit();
  return response_empty(204);
}

}  // namespace

json_ptr metadata_json(const call& of, const item& subject) {
  auto held = of.box.metadata.find(subject);
  if (!held) return nullptr;
  json_t* object = held->value.get();
  json_put(object, "$id", held->id);
  json_put(object, "$parent", (subject.is_folder() ? "folder_" : "file_") + std::to_string(subject.id));
  json_put(object, "$scope", "global");
  json_put(object, "$template", "properties");
  json_put(object, "$type", TEMPLATE_ID);
  json_put(object, "$typeVersion", 2);
  json_put(object, "$version", held->version);
  json_put(object, "$canEdit", json_ptr(json_true()));
  return std::move(held->value);
}

response file_metadata_get(call& of) {
  return get(of, item_type::FILE);
}
response file_metadata_create(call& of) {
  return create(of, item_type::FILE);
}
response file_metadata_update(call& of) {
  return update(of, item_type::FILE);
}
response file_metadata_delete(call& of) {
  return remove(of, item_type::FILE);
}
response folder_metadata_get(call& of) {
  return get(of, item_type::FOLDER);
}
response folder_metadata_create(call& of) {
  return create(of, item_type::FOLDER);
}
response folder_metadata_update(call& of) {
  return update(of, item_type::FOLDER);
}
response folder_metadata_delete(call& of) {
  return remove(of, item_type::FOLDER);
}

}  // namespace tarvex::emulator
