#include "api/metadata.h"

#include "api/access.h"
#include "api/json_patch.h"
#include "api/metadata_template.h"
#include "base/text.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_METADATA_BYTES = 1024UL * 1024;
constexpr std::string_view GLOBAL_PROPERTIES = "global.properties";
constexpr const char* TEMPLATE_ID = "properties-6bcba49f-ca6d-4d2a-a758-57fe6edf44d0";

/// The item and the template that a request names.
struct instance_call {
  item subject;
  std::string place;  // "global.properties"
  json_ptr shape;     // the template
};

/// The short form of error bodies below is the metadata service's own.
instance_call asked_of(const call& of, item_type type) {
  item subject = call_item(of, type, of.id(0), "item");
  const auto scope = metadata_scope(of.ids.at(1));
  json_ptr shape = scope ? metadata_template_json(of, *scope, of.ids.at(2)) : nullptr;
  if (!shape) throw short_problem(404, "instance_not_found", "Template " + of.ids[1] + "." + of.ids[2] + " not found");
  if (subject.is_root()) throw short_problem(403, "forbidden", "The root folder takes no metadata");
  return {std::move(subject), *scope + "." + of.ids[2], std::move(shape)};
}

problem missing_problem(const instance_call& in) {
  return short_problem(404, "instance_not_found",
                       "Instance " + in.place + " not found for " + item_typed_id(in.subject.type, in.subject.id));
}

void check_values(const json_t* shape, const json_t* object) {
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(object), key, value) {
    const std::string refusal = metadata_value_refusal(shape, key, value);
    if (!refusal.empty()) throw short_problem(400, "schema_validation_failed", refusal);
  }
}

json_ptr instance_json(const item& subject, metadata held) {
  json_t* object = held.value.get();
  const auto dot = held.place.find('.');
  json_put(object, "$id", held.id);
  json_put(object, "$parent", (subject.is_folder() ? "folder_" : "file_") + std::to_string(subject.id));
  json_put(object, "$scope", held.place.substr(0, dot));
  json_put(object, "$template", held.place.substr(dot + 1));
  json_put(object, "$type", held.place == GLOBAL_PROPERTIES ? TEMPLATE_ID : held.place.substr(dot + 1) + "-" + held.id);
  json_put(object, "$typeVersion", 2);
  json_put(object, "$version", held.version);
  json_put(object, "$canEdit", json_ptr(json_true()));
  return std::move(held.value);
}

/// Null for what is not JSON; each call says in its own words what it wanted.
json_ptr parsed_body(call& of) {
  const std::string text = of.body_text(MAX_METADATA_BYTES);
  of.note_body(text);
  return json_parse(text);
}

response get(call& of, item_type type) {
  transaction hold(of.box.data);
  const instance_call asked = asked_of(of, type);
  const json_ptr found = metadata_json(of, asked.subject, asked.place);
  if (!found) throw missing_problem(asked);
  return response_json(200, found.get());
}

response list(call& of, item_type type) {
  transaction hold(of.box.data);
  const item subject = call_item(of, type, of.id(0), "item");
  json_ptr entries(json_array());
  for (metadata& each : of.box.metadata.list(subject)) {
    json_add(entries.get(), instance_json(subject, std::move(each)));
  }
  const json_ptr page(json_object());
  json_put(page.get(), "entries", std::move(entries));
  json_put(page.get(), "limit", 100);
  return response_json(200, page.get());
}

response create(call& of, item_type type) {
  json_ptr body = parsed_body(of);
  transaction hold(of.box.data);
  const instance_call asked = asked_of(of, type);
  access_require(of, asked.subject, MAY_EDIT);
  if (!json_is_object(body.get())) throw short_problem(400, "bad_request", "The body must be a JSON object");
  check_values(asked.shape.get(), body.get());
  if (of.box.metadata.find(asked.subject, asked.place)) {
    // Box's description says one thing, its answers of today another.
    const bool documented = of.set.metadata_conflict == "tuple_already_exists";
    throw short_problem(409, of.set.metadata_conflict,
                        documented ? "Tuple already exists" : "Conflict on Metadata Instance.");
  }
  of.box.metadata.save(asked.subject, {std::move(body), 0, random_hex(16), asked.place});
  const json_ptr made = metadata_json(of, asked.subject, asked.place);
  hold.commit();
  return response_json(201, made.get());
}

response update(call& of, item_type type) {
  const json_ptr patch = parsed_body(of);
  transaction hold(of.box.data);
  const instance_call asked = asked_of(of, type);
  access_require(of, asked.subject, MAY_EDIT);
  const auto content_type = of.in.header("Content-Type").value_or("");
  if (!lower(content_type).starts_with("application/json-patch+json") || !json_patch_is_one(patch.get())) {
    throw short_problem(400, "bad_request", "The body must be a JSON patch, sent as application/json-patch+json");
  }
  auto held = of.box.metadata.find(asked.subject, asked.place);
  if (!held) throw missing_problem(asked);
  if (const std::string refusal = json_patch_apply(held->value.get(), patch.get()); !refusal.empty()) {
    throw short_problem(409, "failed_json_patch_application", refusal);
  }
  check_values(asked.shape.get(), held->value.get());
  ++held->version;
  of.box.metadata.save(asked.subject, *held);
  const json_ptr changed = metadata_json(of, asked.subject, asked.place);
  hold.commit();
  return response_json(200, changed.get());
}

response remove(call& of, item_type type) {
  transaction hold(of.box.data);
  const instance_call asked = asked_of(of, type);
  access_require(of, asked.subject, MAY_EDIT);
  if (!of.box.metadata.find(asked.subject, asked.place)) throw missing_problem(asked);
  of.box.metadata.remove(asked.subject, asked.place);
  hold.commit();
  return response_empty(204);
}

}  // namespace

json_ptr metadata_json(const call& of, const item& subject, std::string_view place) {
  auto held = of.box.metadata.find(subject, place);
  return held ? instance_json(subject, std::move(*held)) : nullptr;
}

response file_metadata_list(call& of) {
  return list(of, item_type::FILE);
}
response folder_metadata_list(call& of) {
  return list(of, item_type::FOLDER);
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
