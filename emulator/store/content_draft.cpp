#include "store/content_draft.h"

#include "base/text.h"

namespace tarvex::emulator {

content_draft::content_draft(const content_store& in)
    : in_(in), name_(std::string(DRAFT_PREFIX) + random_hex(12)), file_(in.open(name_, true)) {}

// An upload that fails anywhere leaves nothing: no throw, no early return needs a line for it.
content_draft::~content_draft() {
  if (temporary_) in_.remove(name_);
}

std::string content_draft::sha1() const {
  return hex(digest_.value());
}

void content_draft::append(std::string_view bytes) {
  file_write(file_.get(), bytes, size_);
  digest_.update(bytes);
  size_ += static_cast<std::int64_t>(bytes.size());
}

}  // namespace tarvex::emulator
