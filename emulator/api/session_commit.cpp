#include "api/session_commit.h"

#include "api/event.h"
#include "api/item_view.h"
#include "api/session_common.h"
#include "api/store_file.h"
#include "base/text.h"
#include "base/times.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace tarvex::emulator {
namespace {

constexpr std::size_t COMMIT_BUFFER_BYTES = 256UL * 1024;

/// Whether what a client lists is what the server has. Throws `parts_mismatch`.
void check_parts(const upload_session& session, const std::vector<upload_part>& stored, const json_t* listed) {
  const auto fits = [&](const json_t* one) {
    return std::any_of(stored.begin(), stored.end(), [&](const upload_part& part) {
      return json_text_at(one, "part_id") == part.id && json_number_at(one, "offset") == part.offset &&
             json_number_at(one, "size") == part.size &&
             (json_object_get(one, "sha1") == nullptr || json_text_at(one, "sha1") == part.sha1);
    });
  };
  for (std::size_t i = 0; i < json_array_size(listed); ++i) {
    const json_t* one = json_array_get(listed, i);
    if (!fits(one)) throw box_problem("parts_mismatch", "No matching part found on server for " + json_text(one));
  }
  // Parts that are stored but not listed are as wrong as ones that are listed but not stored.
  const auto total = static_cast<std::size_t>(session.total_parts());
  if (json_array_size(listed) != total || stored.size() != total) {
    throw box_problem("parts_mismatch", "The upload has " + std::to_string(total) + " parts, " +
                                            std::to_string(stored.size()) + " are stored and " +
                                            std::to_string(json_array_size(listed)) + " were listed");
  }
}

/// 202 while the parts are being put together, as the settings have it; counts the commit.
std::optional<response> pending(const call& of, const upload_session& session) {
  if (session.size <= of.set.commit_pending_above) return std::nullopt;
  const std::int64_t now_ms = time_now_us() / 1000;
  of.box.sessions.count_commit(session, now_ms);
  const std::int64_t waited_ms = session.first_commit_ms == 0 ? 0 : now_ms - session.first_commit_ms;
  // The counts are those before this commit.
  if (session.commits >= of.set.commit_pending_count && waited_ms >= of.set.commit_pending_ms) return std::nullopt;
  response answer = response_empty(202);
  if (of.set.commit_retry_after_s >= 0) {
    answer.headers.emplace_back("Retry-After", std::to_string(of.set.commit_retry_after_s));
  }
  return answer;
}

file_target commit_target(const upload_session& session, const json_t* body) {
  const json_t* attributes = json_object_get(body, "attributes");
  file_target target{.name = session.name, .folder = session.folder};
  target.content_created_at = call_time(attributes, "content_created_at");
  target.content_modified_at = call_time(attributes, "content_modified_at");
  return target;
}

item store(const call& of, const upload_session& session, const file_target& target, const std::string& sha1) {
  const file_bytes bytes{session.content(), session.size, hex(sha1)};
  if (session.file == 0) {
    (void)call_item(of, item_type::FOLDER, target.folder, "parent");  // for its refusal
    return store_file(of, target, bytes);
  }
  return store_version(of, call_item(of, item_type::FILE, session.file, "item"), target, bytes);
}

/// SHA-1 (20 bytes) of the whole file, all parts of which are there. Not inside a transaction.
std::string whole_digest(const call& of, const upload_session& session) {
  const auto memory = of.box.digests.of(session.id);
  // What came in order has been digested on its way in; only the rest is read again, without holding up anybody.
  std::unique_lock lock(memory->mutex);
  sha1_digest digest = memory->digest;
  std::int64_t at = memory->bytes;
  lock.unlock();
  const descriptor file = of.box.contents.open(session.content(), false);
  if (!file) throw box_problem("session_expired");  // another commit or an abort was faster
  std::vector<char> buffer(COMMIT_BUFFER_BYTES);
  while (at < session.size) {
    const std::size_t got = file_read(file.get(), buffer.data(), buffer.size(), at);
    if (got == 0) throw box_problem("upload_failed");
    digest.update({buffer.data(), got});
    at += static_cast<std::int64_t>(got);
  }
  lock.lock();
  if (memory->bytes < at) {
    memory->digest = digest;
    memory->bytes = at;
  }
  return digest.value();
}

}  // namespace

response session_commit(call& of) {
  const json_ptr body = of.body_object();
  const std::string expected = session_expected_digest(of);
  transaction checking(of.box.data);
  const upload_session session = session_named(of);
  const file_target target = commit_target(session, body.get());
  const json_t* listed = json_object_get(body.get(), "parts");
  require(json_is_array(listed), "'parts' is required");
  check_parts(session, of.box.sessions.parts(session), listed);
  auto not_ready = pending(of, session);
  checking.commit();
  if (not_ready) return std::move(*not_ready);

  // The session stays open after a wrong digest, so a client can mend the parts and commit again.
  const std::string actual = whole_digest(of, session);
  if (actual != expected) {
    throw box_problem("digest_mismatch", "File digest was incorrect. Actual: " + base64_encode(actual) +
                                             " Expected: " + base64_encode(expected));
  }
  transaction hold(of.box.data);
  (void)session_named(of);  // another commit may have been faster
  const item made = store(of, session, target, actual);
  session_end(of, session);
  response answer = response_json(201, item_view(of).entries_of_one(made).get());
  event_note(of, "ITEM_UPLOAD", made);
  hold.commit();
  return answer;
}

}  // namespace tarvex::emulator
