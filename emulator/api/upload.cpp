#include "api/upload.h"

#include "api/call_check.h"
#include "api/event.h"
#include "api/item_view.h"
#include "api/multipart_reader.h"
#include "api/store_file.h"
#include "base/text.h"
#include "store/content_draft.h"

#include <functional>

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_ATTRIBUTES_BYTES = 64UL * 1024;

std::string part_text(multipart_reader& reader) {
  std::string text;
  for (std::string_view piece = reader.read(); !piece.empty(); piece = reader.read()) {
    text += piece;
    require(text.size() <= MAX_ATTRIBUTES_BYTES, "The attributes are too long");
  }
  return text;
}

/// Refuses a body that is too large, by its announced length where there is one, else as it grows.
void check_size(const call& of, std::int64_t size) {
  if (of.set.direct_upload_maximum > 0 && size > of.set.direct_upload_maximum) {
    throw box_problem("request_entity_too_large");
  }
  if (size > of.set.max_upload_size) throw box_problem("file_size_limit_exceeded");
}

void receive(const call& of, multipart_reader& reader, content_draft& draft) {
  for (std::string_view piece = reader.read(); !piece.empty(); piece = reader.read()) {
    draft.append(piece);
    check_size(of, draft.size());
  }
}

using attributes_check = std::function<void(const json_t* attributes)>;

/// Reads attributes and file; `check` is called between the two, so that a refusal needs no bytes. `given`: what stands
/// for attributes that do not come; null: they must.
json_ptr read_form(call& of, content_draft& draft, const attributes_check& check, json_ptr given = nullptr) {
  const auto boundary = multipart_boundary(of.in.header("Content-Type").value_or(""));
  require(boundary.has_value(), "The request must be multipart/form-data with a boundary");
  multipart_reader reader(*of.in.body, *boundary);
  json_ptr attributes;
  bool has_file = false;
  const auto take = [&](json_ptr found) {
    attributes = std::move(found);
    check(attributes.get());
  };
  while (const auto part = reader.next_part()) {
    // Box takes as the file any part with a file name, and ignores that name.
    if (part->has_file_name) {
      if (!attributes && given) take(std::move(given));
      if (!attributes) throw box_problem("metadata_after_file_contents");
      receive(of, reader, draft);
      has_file = true;
    } else if (part->name == "attributes" && !attributes) {
      const std::string text = part_text(reader);
      of.note_body(text);
      json_ptr found = json_parse(text);
      require(json_is_object(found.get()), "'attributes' must be a JSON object");
      take(std::move(found));
    }
  }
  require(attributes != nullptr, "'attributes' is required");
  require(has_file, "A part with the file is required");
  // In spite of its name the header holds a SHA-1, in hex.
  const auto expected = of.in.header("Content-MD5");
  if (expected && lower(trim(*expected)) != draft.sha1()) throw box_problem("bad_digest");
  return attributes;
}

/// The least that the file can have, from the length of the request; 0 when it is not announced.
std::int64_t least_size(const call& of) {
  constexpr std::int64_t MOST_FORM_BYTES = 70L * 1024;
  // A form around the file: attributes, heads and boundaries take something off the length.
  const auto announced = static_cast<std::int64_t>(of.in.content_length.value_or(0));
  return announced > MOST_FORM_BYTES ? announced - MOST_FORM_BYTES : 0;
}

response upload_url(const call& of, const std::string& path) {
  const json_ptr answer(json_object());
  json_put(answer.get(), "upload_url", of.origin(of.set.upload_host) + path);
  json_put(answer.get(), "upload_token", json_ptr(json_null()));
  return response_json(200, answer.get());
}

file_target version_target(const json_t* attributes) {
  file_target target;
  call_check_members(attributes, "name parent content_created_at content_modified_at");
  target.name = json_text_at(attributes, "name").value_or("");
  if (!target.name.empty()) call_check_name(target.name);
  target.content_created_at = call_time(attributes, "content_created_at");
  target.content_modified_at = call_time(attributes, "content_modified_at");
  return target;
}

/// A new version stays where the file is.
void check_same_parent(const item& file, const json_t* attributes) {
  const auto parent = json_number_at(json_object_get(attributes, "parent"), "id");
  require(!parent || *parent == file.parent, "A new version cannot move its file");
}

}  // namespace

response upload_file(call& of) {
  check_size(of, least_size(of));
  content_draft draft(of.box.contents);
  const json_ptr attributes = read_form(of, draft, [&](const json_t* found) {
    transaction hold(of.box.data);
    store_check(of, store_target(of, found), least_size(of));
  });
  // Everything is asked again: the name may have been taken while the bytes came in.
  transaction hold(of.box.data);
  const item made = store_file(of, store_target(of, attributes.get()), {draft.name(), draft.size(), draft.sha1()});
  response answer = response_json(201, item_view(of).entries_of_one(made).get());
  event_note(of, "ITEM_UPLOAD", made);
  hold.commit();
  draft.keep();
  return answer;
}

response upload_version(call& of) {
  check_size(of, least_size(of));
  content_draft draft(of.box.contents);
  const auto check = [&](const json_t* found) {
    (void)version_target(found);  // for its refusals
    transaction hold(of.box.data);
    const item file = call_item(of, item_type::FILE, of.id(0), "item");
    check_same_parent(file, found);
    call_check_writable(of, file);
    call_check_match(of, file);
  };
  const json_ptr attributes = read_form(of, draft, check, json_ptr(json_object()));
  transaction hold(of.box.data);
  const item before = call_item(of, item_type::FILE, of.id(0), "item");
  const item made =
      store_version(of, before, version_target(attributes.get()), {draft.name(), draft.size(), draft.sha1()});
  response answer = response_json(201, item_view(of).entries_of_one(made).get());
  event_note(of, "ITEM_UPLOAD", made);
  hold.commit();
  draft.keep();
  return answer;
}

response upload_preflight(call& of) {
  const json_ptr body = of.body_object();
  transaction hold(of.box.data);
  store_check(of, store_target(of, body.get()), json_number_at(body.get(), "size").value_or(0));
  return upload_url(of, "/api/2.0/files/content");
}

response upload_preflight_version(call& of) {
  const json_ptr body = of.body_object();
  transaction hold(of.box.data);
  const item file = call_item(of, item_type::FILE, of.id(0), "item");
  call_check_writable(of, file);
  call_check_match(of, file);
  call_check_quota(of, json_number_at(body.get(), "size").value_or(0));
  return upload_url(of, "/api/2.0/files/" + std::to_string(file.id) + "/content");
}

}  // namespace tarvex::emulator
