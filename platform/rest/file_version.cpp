#include "file_version.h"

#include "content_range.h"
#include "tarvex_dsi_rest.h"

#include <array>
#include <map>
#include <mutex>

namespace tarvex::rest {
namespace {

/// What tells versions apart: each text as the answers have it, empty where they do not tell.
struct file_version {
  std::string entity_tag;
  std::string modified;
  std::string total;
};

constexpr std::array FIELDS = {&file_version::entity_tag, &file_version::modified, &file_version::total};

std::mutex versions_mutex;
std::map<tarvex_gfs_operation_t, file_version> versions;  // guarded by the mutex

std::string text_or_empty(const char* text) {
  return text == nullptr ? "" : text;
}

file_version version_of(const response_head& head) {
  file_version version = {.entity_tag = text_or_empty(head.find("ETag")),
                          .modified = text_or_empty(head.find("Last-Modified")),
                          .total = {}};
  if (head.status() == 200) {
    // The length of coded content is not the file's.
    if (head.find("Content-Encoding") == nullptr) version.total = text_or_empty(head.find("Content-Length"));
  } else if (const auto total = parse_content_range(head.find("Content-Range")).total) {
    version.total = std::to_string(*total);
  }
  return version;
}

/// Takes over what only `told` tells. \return whether the two can be of one version
bool merge(file_version& known, const file_version& told) {
  for (const auto field : FIELDS) {
    if (known.*field != told.*field && !(known.*field).empty() && !(told.*field).empty()) return false;
    if ((known.*field).empty()) known.*field = told.*field;
  }
  return true;
}

tarvex_result_t changed() {
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
      nullptr, nullptr, 451, "FILE_CHANGED", "GridFTP-Error: The file changed while it was read. Fetch it again."));
}

}  // namespace

tarvex_result_t check_file_version(tarvex_gfs_operation_t op, const response_head& head) {
  if (head.status() != 200 && head.status() != 206) return TARVEX_SUCCESS;
  const file_version told = version_of(head);
  const std::lock_guard lock(versions_mutex);
  return merge(versions[op], told) ? tarvex_result_t{TARVEX_SUCCESS} : changed();
}

}  // namespace tarvex::rest

void tarvex_dsi_rest_operation_over(tarvex_gfs_operation_t op) {
  const std::lock_guard lock(tarvex::rest::versions_mutex);
  tarvex::rest::versions.erase(op);
}
