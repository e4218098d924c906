// Messages between the sessions, the broker and the listener, and records of the broker's store: what is taken for one
// means the same when it is written again.
#include "broker/token_record.h"
#include "fuzz.h"
#include "link/connection_note.h"
#include "link/messages.h"

#include <string>

namespace tarvex::server {
namespace {

using fuzz::must;

void check_session_message(std::string_view frame) {
  const auto taken = session_message_decode(frame);
  if (!taken) return;
  const secret written = message_encode(*taken);
  if (written.text().empty()) return;  // a certificate's name that is no UTF-8 has no frame
  const auto again = session_message_decode(written.text());
  must(again && again->what == taken->what && again->id == taken->id && again->generation == taken->generation);
  must(again->name == taken->name && again->password.text() == taken->password.text());
}

void check_broker_message(std::string_view frame) {
  const auto taken = broker_message_decode(frame);
  if (!taken) return;
  must(taken->code == 0 || taken->code == 421 || taken->code == 530);
  must(taken->root.starts_with('/'));
  const auto again = broker_message_decode(message_encode(*taken).text());
  must(again && again->what == taken->what && again->text == taken->text && again->credential == taken->credential);
}

void check_note(std::string_view frame) {
  const auto taken = note_decode(frame);
  if (!taken) return;
  const auto again = note_decode(note_encode(*taken));
  must(again && again->id == taken->id && again->account == taken->account && again->logged_in == taken->logged_in);
}

void check_record(std::string_view text) {
  const auto taken = record_read(text);
  if (!taken) return;
  const auto again = record_read(record_write(*taken).text());
  must(again && again->generation == taken->generation && again->current.access.text() == taken->current.access.text());
}

}  // namespace
}  // namespace tarvex::server

void tarvex::fuzz::run(std::string_view bytes) {
  // The length of a frame would be right by chance only.
  std::string frame;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) frame.push_back(static_cast<char>(bytes.size() >> shift & 0xffU));
  frame += bytes;
  server::check_session_message(frame);
  server::check_session_message(bytes);
  server::check_broker_message(frame);
  server::check_note(frame);
  server::check_record(bytes);
}
