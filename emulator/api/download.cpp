#include "api/download.h"

#include "api/access.h"
#include "base/text.h"
#include "base/times.h"
#include "http/byte_range.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace tarvex::emulator {
namespace {

// The download host answers no JSON, and shortly: a client that streams may take the text for content.
response html(unsigned status, const std::string& words) {
  return response_text(status, "text/html", "<html><body>" + words + "</body></html>\n");
}

response unsatisfiable(std::int64_t size) {
  response answer = html(416, "Range not satisfiable");
  answer.headers.emplace_back("Accept-Ranges", "bytes");
  answer.headers.emplace_back("Content-Range", "bytes */" + std::to_string(size));
  return answer;
}

/// The name inside quotes; what would end them is left out.
std::string disposition(const std::string& name) {
  std::string plain;
  for (const char c : name) plain += c == '"' || c == '\\' || static_cast<unsigned char>(c) >= 0x80 ? '_' : c;
  return "attachment;filename=\"" + plain + "\"";
}

/// A version that belongs to another file is as unknown as one that never was.
version version_asked(const call& of, const item& file) {
  std::int64_t wanted = file.version;
  if (const auto asked = of.in.parameter("version"); asked && !asked->empty()) wanted = number_of(*asked).value_or(-1);
  const auto found = of.box.versions.find(wanted);
  if (!found || found->file != file.id || of.box.versions.is_trashed(found->id))
    throw not_found_problem("file_version", std::to_string(wanted));
  return *found;
}

}  // namespace

response download_redirect(call& of) {
  transaction hold(of.box.data);
  const item file = call_item(of, item_type::FILE, of.id(0), "item");
  access_require(of, file, MAY_DOWNLOAD);
  // A Range header is for the download host; here it is not looked at.
  const version wanted = version_asked(of, file);
  if (of.box.recent.is_held_back(wanted.id)) {
    response later = response_empty(202);
    later.headers.emplace_back("Retry-After", std::to_string((of.set.content_pending_ms + 999) / 1000));
    return later;
  }
  const std::int64_t expires_at_us = time_now_us() + of.set.download_lifetime_s * 1000000;
  const std::string key = of.box.downloads.add({wanted.content, file.name, expires_at_us});
  response answer = response_empty(302);
  answer.headers.emplace_back("Location", of.origin(of.set.download_host) + "/d/1/" + key + "/download");
  return answer;
}

response download_bytes(call& of) {
  const auto link = of.box.downloads.find(of.ids.at(0));
  descriptor file = link ? of.box.contents.open(link->content, false) : descriptor();
  if (!file) return html(404, "This download link is unknown or has expired");
  const std::int64_t size = ::lseek(file.get(), 0, SEEK_END);
  if (size < 0) throw std::system_error(errno, std::generic_category(), "cannot measure content " + link->content);
  byte_range wanted{0, size - 1};
  const auto asked = of.in.header("Range");
  const range_kind kind = asked ? byte_range_parse(*asked, size, wanted) : range_kind::WHOLE;
  if (kind == range_kind::UNSATISFIABLE) return unsatisfiable(size);
  response answer = response_empty(kind == range_kind::PART ? 206 : 200);
  answer.headers.emplace_back("Accept-Ranges", "bytes");
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
