#include "link/connection_note.h"

#include "link/frame.h"

#include <new>

namespace tarvex::server {

std::string note_encode(const connection_note& note) try {
  const json_document object = json_made(json_object());
  json_set_integer(object.get(), "id", static_cast<json_int_t>(note.id));
  json_set_text(object.get(), "address", note.address);
  json_set_text(object.get(), "account", note.account);
  json_set_integer(object.get(), "logged_in", note.logged_in ? 1 : 0);
  json_set_text(object.get(), "error", note.error);
  return frame_encode(object.get());
} catch (const std::bad_alloc&) {
  return {};
}

std::optional<connection_note> note_decode(std::string_view frame) {
  const json_document object = frame_decode(frame);
  const auto id = json_integer_of(object.get(), "id");
  auto address = json_text_of(object.get(), "address");
  auto account = json_text_of(object.get(), "account");
  const auto logged_in = json_integer_of(object.get(), "logged_in");
  if (!id || *id < 0 || !address || !account || !logged_in) return std::nullopt;
  return connection_note{.id = static_cast<std::uint64_t>(*id),
                         .address = std::move(*address),
                         .account = std::move(*account),
                         .logged_in = *logged_in != 0,
                         .error = json_text_of(object.get(), "error").value_or("")};
}

}  // namespace tarvex::server
