#include "api/session_part.h"

#include "api/session_common.h"
#include "base/digest.h"
#include "base/text.h"
#include "box/session_digests.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarvex::emulator {
namespace {

constexpr std::size_t PART_BUFFER_BYTES = 256UL * 1024;

struct part_range {
  std::int64_t first = 0;
  std::int64_t last = 0;
  std::int64_t total = 0;

  [[nodiscard]] std::int64_t size() const { return last - first + 1; }
};

/// "bytes 0-8388607/104857600". Throws 400.
part_range range_in(const call& of) {
  const std::string text = lower(of.in.header("Content-Range").value_or(""));
  const auto dash = text.find('-');
  const auto slash = text.find('/');
  require(text.starts_with("bytes ") && dash != std::string::npos && slash != std::string::npos && dash < slash,
          "A Content-Range header of the form bytes FIRST-LAST/TOTAL is required");
  const std::string_view view(text);
  const auto first = number_of(trim(view.substr(6, dash - 6)));
  const auto last = number_of(view.substr(dash + 1, slash - dash - 1));
  const auto total = number_of(view.substr(slash + 1));
  require(first && last && total && *first >= 0 && *last >= *first, "The Content-Range header is not a range");
  return {*first, *last, *total};
}

/// Parts start at multiples of the part size and are of that size, all but the last.
void check_range(const call& of, const upload_session& session, const part_range& range) {
  const std::int64_t whole = std::min(session.part_size, session.size - range.first);
  const bool length_fits = !of.in.content_length || static_cast<std::int64_t>(*of.in.content_length) == range.size();
  if (range.total != session.size || range.first % session.part_size != 0 || range.size() != whole || !length_fits) {
    throw box_problem("range_not_satisfiable");
  }
}

void check_overlap(const call& of, const upload_session& session, const part_range& range) {
  const auto stored = of.box.sessions.find_overlap(session, range.first, range.size());
  if (!stored) return;
  throw box_problem("range_overlaps_existing_part",
                    "Part overlaps with previously uploaded part: {id: \"" + stored->id + "\", \"offset\": " +
                        std::to_string(stored->offset) + ", \"size\": " + std::to_string(stored->size) + "}");
}

/// Marks a part as being stored for as long as it lives.
class storing_mark {
 public:
  storing_mark(std::shared_ptr<session_digest> in, std::int64_t offset) : in_(std::move(in)), offset_(offset) {
    const std::lock_guard lock(in_->mutex);
    if (!in_->storing.insert(offset_).second) throw box_problem("conflict", "This part is being uploaded already");
  }
  storing_mark(const storing_mark&) = delete;
  storing_mark& operator=(const storing_mark&) = delete;
  ~storing_mark() {
    const std::lock_guard lock(in_->mutex);
    in_->storing.erase(offset_);
  }

 private:
  std::shared_ptr<session_digest> in_;
  std::int64_t offset_;
};

/// Takes the bytes of one part; where it follows on what the whole-file digest has seen, it is fed to that, too, and
/// where not, that goes on with parts which came before.
class part_writer {
 public:
  part_writer(const call& of, const upload_session& session, const part_range& range,
              std::shared_ptr<session_digest> memory)
      : file_(of.box.contents.open(session.content(), true)), range_(range), memory_(std::move(memory)) {
    const std::lock_guard lock(memory_->mutex);
    if (memory_->bytes == range_.first) whole_ = memory_->digest;
  }

  void receive(body_source& from) {
    std::vector<char> buffer(PART_BUFFER_BYTES);
    while (const std::size_t got = from.read(buffer)) {
      const std::string_view bytes(buffer.data(), got);
      // Seen as it comes: a chunked body announces no length.
      if (received_ + static_cast<std::int64_t>(got) > range_.size()) throw box_problem("range_not_satisfiable");
      part_.update(bytes);
      if (whole_) {
        whole_->update(bytes);
      } else {
        session_digest_carry_on(*memory_, file_.get(), 2 * static_cast<std::int64_t>(got));
      }
      file_write(file_.get(), bytes, range_.first + received_);
      received_ += static_cast<std::int64_t>(got);
    }
    if (received_ != range_.size()) throw box_problem("range_not_satisfiable");
  }

  [[nodiscard]] std::string digest() const { return part_.value(); }

  /// The part counts from now on.
  void accept() {
    const std::lock_guard lock(memory_->mutex);
    session_digest_add(*memory_, range_.first, range_.size());
    if (!whole_) return;
    memory_->digest = std::move(*whole_);
    memory_->bytes = range_.last + 1;
  }

 private:
  descriptor file_;
  part_range range_;
  std::shared_ptr<session_digest> memory_;
  sha1_digest part_;
  std::optional<sha1_digest> whole_;
  std::int64_t received_ = 0;
};

/// Reads the body of a part into the session's file and enters the part. `expected` is the announced SHA-1, 20 bytes.
/// Throws problem: 416 for a range that does not fit or is there already, 409 while the same part is being stored, 412
/// for another digest. Not inside a transaction.
upload_part receive(call& of, const std::string& expected) {
  const part_range range = range_in(of);
  std::optional<upload_session> session;
  {
    // Not held while the body comes in: that takes as long as the client likes.
    transaction hold(of.box.data);
    session = session_named(of);
    check_range(of, *session, range);
    check_overlap(of, *session, range);
  }
  const auto memory = of.box.digests.of(session->id);
  const storing_mark mark(memory, range.first);
  part_writer writer(of, *session, range, memory);
  writer.receive(*of.in.body);
  if (writer.digest() != expected) throw box_problem("precondition_failed", "The part's digest does not fit its bytes");
  transaction hold(of.box.data);
  (void)session_named(of);             // it may have been aborted meanwhile
  check_overlap(of, *session, range);  // a part over other bounds may have come meanwhile
  upload_part part{range.first, range.size(), upper(random_hex(4)), hex(expected)};
  of.box.sessions.add_part(*session, part);
  hold.commit();
  writer.accept();
  return part;
}

}  // namespace

response session_put_part(call& of) {
  const upload_part part = receive(of, session_expected_digest(of));
  const json_ptr answer(json_object());
  json_put(answer.get(), "part", session_part_json(part));
  return response_json(200, answer.get());
}

}  // namespace tarvex::emulator
