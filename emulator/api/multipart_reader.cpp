#include "api/multipart_reader.h"

#include "base/text.h"
#include "traffic/problem.h"

#include <cstring>

namespace tarvex::emulator {
namespace {

constexpr std::size_t BUFFER_BYTES = 1024UL * 1024;
constexpr std::size_t MAX_PART_HEAD_BYTES = 16UL * 1024;

/// Where `needle`, which begins with CR, stands in `text`. Faster than a general search on data with few CRs.
std::size_t find_delimiter(std::string_view text, std::string_view needle) {
  std::size_t at = 0;
  while ((at = text.find(needle.front(), at)) != std::string_view::npos) {
    if (text.substr(at).starts_with(needle)) return at;
    ++at;
  }
  return std::string_view::npos;
}

/// The value of `name="..."` in a header line. A file name may hold anything, so only the first quoted text counts.
std::string parameter(std::string_view line, std::string_view name) {
  for (std::size_t at = 0; (at = line.find(name, at)) != std::string_view::npos; ++at) {
    const bool own = at > 0 && (line[at - 1] == ' ' || line[at - 1] == ';');
    std::string_view value = line.substr(at + name.size());
    if (!own || !value.starts_with('=')) continue;
    value.remove_prefix(1);
    if (!value.starts_with('"')) return std::string(value.substr(0, value.find(';')));
    value.remove_prefix(1);
    return std::string(value.substr(0, value.find('"')));
  }
  return {};
}

/// Box takes quotes inside a file name as they come, so what follows "filename" is not looked at.
part_head parse_head(std::string_view text) {
  part_head head;
  while (!text.empty()) {
    const auto end = text.find("\r\n");
    const std::string_view line = text.substr(0, end);
    if (lower(line).starts_with("content-disposition:")) {
      const auto file_name = lower(line).find("filename");
      head.name = parameter(line.substr(0, file_name), "name");
      head.has_file_name = file_name != std::string::npos;
    }
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 2);
  }
  return head;
}

}  // namespace

multipart_reader::multipart_reader(body_source& from, std::string_view boundary)
    : from_(from), delimiter_("\r\n--" + std::string(boundary)), bytes_(BUFFER_BYTES) {
  // The first boundary may stand at the very front: then this is its line end.
  bytes_[0] = '\r';
  bytes_[1] = '\n';
  end_ = 2;
}

void multipart_reader::fill() {
  if (begin_ > 0) {
    std::memmove(bytes_.data(), bytes_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  const std::size_t got = from_.read({bytes_.data() + end_, bytes_.size() - end_});
  if (got == 0) throw box_problem("bad_request", "Stream ended unexpectedly");
  end_ += got;
}

std::string_view multipart_reader::read() {
  for (;;) {
    const std::string_view pending(bytes_.data() + begin_, end_ - begin_);
    const auto at = find_delimiter(pending, delimiter_);
    // As long as the delimiter may have begun in the last bytes, those are held back.
    const std::size_t safe = at != std::string_view::npos          ? at
                             : pending.size() >= delimiter_.size() ? pending.size() - delimiter_.size() + 1
                                                                   : 0;
    if (safe > 0 || at == 0) {
      begin_ += safe;
      return pending.substr(0, safe);
    }
    fill();
  }
}

std::optional<part_head> multipart_reader::next_part() {
  while (!read().empty()) {
  }
  begin_ += delimiter_.size();
  for (;;) {
    const std::string_view pending(bytes_.data() + begin_, end_ - begin_);
    if (pending.starts_with("--")) return std::nullopt;
    const auto line_end = pending.find("\r\n");
    const auto head_end = pending.find("\r\n\r\n");
    if (head_end != std::string_view::npos) {
      const part_head head = parse_head(pending.substr(line_end + 2, head_end - std::min(head_end, line_end + 2)));
      begin_ += head_end + 4;
      return head;
    }
    require(pending.size() < MAX_PART_HEAD_BYTES, "The head of a part is too long");
    fill();
  }
}

std::optional<std::string> multipart_boundary(std::string_view content_type) {
  if (!lower(content_type).starts_with("multipart/form-data")) return std::nullopt;
  std::string boundary = parameter(content_type, "boundary");
  if (boundary.empty()) return std::nullopt;
  return boundary;
}

}  // namespace tarvex::emulator
