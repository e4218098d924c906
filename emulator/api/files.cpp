#include "api/files.h"

#include <unistd.h>

#include <algorithm>

#include "api/download_links.h"
#include "api/item_json.h"
#include "api/items.h"
#include "base/text.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

struct range {
  std::int64_t first = 0;
  std::int64_t last = 0;
};

enum class range_kind { WHOLE, PART, UNSATISFIABLE };

/// Reads "bytes=a-b", "bytes=a-" and "bytes=-n" (RFC 9110, 14.1.2). What is not of that form, or names several ranges,
/// is ignored.
range_kind parse_range(const std::string& text, std::int64_t size, range& into) {
  constexpr std::string_view UNIT = "bytes=";
  const auto dash = text.find('-');
  if (!lower(text).starts_with(UNIT) || dash == std::string::npos || text.find(',') != std::string::npos) {
    return range_kind::WHOLE;
  }
  const std::string_view from = trim(std::string_view(text).substr(UNIT.size(), dash - UNIT.size()));
  const std::string_view to = trim(std::string_view(text).substr(dash + 1));
  const auto first = number_of(from);
  const auto last = number_of(to);
  if ((!from.empty() && !first) || (!to.empty() && !last) || (from.empty() && to.empty())) return range_kind::WHOLE;
  if (first && last && *last < *first) return range_kind::WHOLE;
  if (!first && *last == 0) return range_kind::UNSATISFIABLE;
  into.first = first ? *first : std::max<std::int64_t>(0, size - *last);
  into.last = first && last ? std::min(*last, size - 1) : size - 1;
  return into.first < size ? range_kind::PART : range_kind::UNSATISFIABLE;
}

response html(unsigned status, const std::string& words) {
  return response_text(status, "text/html", "<html><body>" + words + "</body></html>\n");
}

/// The name inside quotes; what would end them is left out.
std::string disposition(const std::string& name) {
  std::string plain;
  for (const char c : name) plain += c == '"' || c == '\\' || static_cast<unsigned char>(c) >= 0x80 ? '_' : c;
  return "attachment;filename=\"" + plain + "\"";
}

version version_asked(const call& of, const item& file) {
  std::int64_t wanted = file.version;
  if (const auto asked = of.in.parameter("version"); asked && !asked->empty()) wanted = number_of(*asked).value_or(-1);
  const auto found = of.box.items.find_version(wanted);
  if (!found || found->file != file.id) throw not_found_problem("file_version", std::to_string(wanted));
  return *found;
}

}  // namespace

response file_get(call& of) {
  return item_get(of, item_type::FILE, "item");
}
response file_update(call& of) {
  return item_update(of, item_type::FILE, "item");
}
response file_delete(call& of) {
  return item_delete(of, item_type::FILE, "item");
}
response file_copy(call& of) {
  return item_copy(of, item_type::FILE, "item");
}

response file_content(call& of) {
  transaction hold(of.box.data);
  const item file = call_item(of, item_type::FILE, of.id(0), "item");
  const version wanted = version_asked(of, file);
  const std::int64_t expires_at_us = time_now_us() + of.set.download_lifetime_s * 1000000;
  const std::string key = of.box.downloads->add({wanted.content, file.name, expires_at_us});
  response answer = response_empty(302);
  answer.headers.emplace_back("Location", of.origin(of.set.download_host) + "/d/1/" + key + "/download");
  return answer;
}

response download(call& of) {
  const auto link = of.box.downloads->find(of.ids.at(0));
  descriptor file = link ? of.box.contents.open(link->content, false) : descriptor();
  if (!file) return html(404, "This download link is unknown or has expired");
  const std::int64_t size = ::lseek(file.get(), 0, SEEK_END);
  range wanted{0, size - 1};
  range_kind kind = range_kind::WHOLE;
  if (const auto asked = of.in.header("Range")) kind = parse_range(*asked, size, wanted);
  response answer = kind == range_kind::UNSATISFIABLE ? html(416, "Range not satisfiable")
                                                      : response_empty(kind == range_kind::PART ? 206 : 200);
  answer.headers.emplace_back("Accept-Ranges", "bytes");
  if (kind == range_kind::UNSATISFIABLE) {
    answer.headers.emplace_back("Content-Range", "bytes */" + std::to_string(size));
    return answer;
  }
  if (kind == range_kind::PART) {
    answer.headers.emplace_back("Content-Range", "bytes " + std::to_string(wanted.first) + "-" +
                                                     std::to_string(wanted.last) + "/" + std::to_string(size));
  }
  answer.headers.emplace_back("Content-Type", "application/octet-stream");
  answer.headers.emplace_back("Content-Disposition", disposition(link->name));
  answer.file = file_range{std::move(file), wanted.first, wanted.last - wanted.first + 1};
  return answer;
}

}  // namespace tarvex::emulator
