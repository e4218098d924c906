#include "digest.h"
#include "read_monitor.h"
#include "request.h"
#include "trace.h"

#include <cstdlib>
#include <future>

using tarvex::box::error_ftp;
using tarvex::box::error_generic;
using tarvex::box::request;

namespace {

constexpr tarvex::box::error_source UPLOAD_PARTS_SOURCE("tarvex_i_box_upload_parts");

/// Longest Authorization value of a part.
constexpr size_t AUTHORIZATION_LIMIT = 4106;

/// One upload of parts.
struct part_upload {
  tarvex_gfs_operation_t op;
  tarvex_box_session_t* box;
  tarvex_box_upload_session_t* upload;
  std::string url = {};
  tarvex::c_string buffer = {};  ///< `part_size` bytes

  unsigned char* data() const { return reinterpret_cast<unsigned char*>(buffer.get()); }
};

/// The part's own digest, as its header has it.
tarvex_result_t tarvex_l_box_part_digest(const part_upload& parts, size_t length, std::string& header) {
  tarvex::box::sha1_digest digest{};
  if (!tarvex::box::sha1_of(parts.data(), length, digest)) {
    return error_generic(UPLOAD_PARTS_SOURCE, "Failed generating part hash.");
  }
  header = tarvex::box::digest_header(digest);
  return TARVEX_SUCCESS;
}

/// Adds the part to the digests of the whole file, on a thread of its own: what needs them comes last, and the part can
/// be on its way meanwhile. \return what failed; null: nothing did
std::future<const char*> tarvex_l_box_file_digests_add(const part_upload& parts, size_t length) {
  return std::async(std::launch::async, [upload = parts.upload, data = parts.data(), length]() -> const char* {
    if (!tarvex::box::sha1_update(upload->sha1_ctx, data, length)) return "Failed updating file sha1 hash.";
    if (!tarvex::box::md5_update(upload->md5_ctx, data, length)) return "Failed updating file md5 hash.";
    return nullptr;
  });
}

/// "bytes FIRST-LAST/TOTAL" of a part.
std::string tarvex_l_box_content_range(const tarvex_box_upload_session_t& upload, int index, size_t length) {
  const uint64_t first = static_cast<uint64_t>(index) * upload.part_size;
  const auto number = [](uint64_t value) { return std::to_string(static_cast<int64_t>(value)); };
  return "bytes " + number(first) + "-" + number(first + length - 1) + "/" + number(upload.total_size);
}

tarvex_result_t tarvex_l_box_part_put(part_upload& parts, int index, size_t length, const std::string& digest,
                                      tarvex::box::answer& out) {
  tarvex_dsi_rest_write_block_arg_t block = {.block_data = parts.buffer.get(), .block_len = length};
  const request call = {
      .source = UPLOAD_PARTS_SOURCE,
      .method = "PUT",
      .url = parts.url,
      .headers = {{"Content-Type", "application/octet-stream"},
                  {"Content-Range", tarvex_l_box_content_range(*parts.upload, index, length)},
                  {"digest", digest}},  // in lower case on purpose
      .write = tarvex_dsi_rest_write_block,
      .write_arg = &block,
      .attempts = 3,
      .delayed = false,
      .renew_token_for = parts.op,
      .authorization_limit = AUTHORIZATION_LIMIT,
      .progress_timeout_ms = 2 * tarvex_i_box_progress_timeout_ms,
  };
  return request_perform(parts.box, call, out);
}

/// Reads one part and sends it. \param complete  takes false when Box's answer holds no part
tarvex_result_t tarvex_l_box_part(part_upload& parts, tarvex::box::read_monitor& monitor, int index, bool& complete) {
  const bool last = index == parts.upload->num_parts - 1;
  tarvex_result_t result = monitor.fill(parts.op, parts.data(), parts.upload->part_size, last);
  std::string digest;
  if (result == TARVEX_SUCCESS) result = tarvex_l_box_part_digest(parts, monitor.length(), digest);
  if (result != TARVEX_SUCCESS) return result;
  std::future<const char*> added = tarvex_l_box_file_digests_add(parts, monitor.length());
  tarvex::box::answer sent;
  result = tarvex_l_box_part_put(parts, index, monitor.length(), digest, sent);
  const char* const failure = added.get();
  if (result != TARVEX_SUCCESS) return result;
  if (failure != nullptr) return error_generic(UPLOAD_PARTS_SOURCE, failure);
  if (!sent.document) return tarvex::box::error_memory();
  json_t* const part = json_object_get(sent.document.get(), "part");
  complete = part != nullptr;
  if (complete) json_array_append(parts.upload->part_array, part);
  return TARVEX_SUCCESS;
}

/// Only whole files are taken, from the start or from where a part begins.
bool tarvex_l_box_range_fits(const tarvex_gfs_transfer_info_t& info, const tarvex_box_upload_session_t& upload,
                             tarvex_off_t offset, tarvex_off_t length) {
  if (length != -1 && static_cast<uint64_t>(length) != info.alloc_size) return false;
  return offset == 0 || (offset > 0 && static_cast<uint64_t>(offset) % upload.part_size == 0);
}

tarvex_result_t tarvex_l_box_parts_send(part_upload& parts, int first) {
  tarvex::box::read_monitor monitor;
  bool complete = true;
  for (int index = first; index < parts.upload->num_parts; ++index) {
    const tarvex_result_t result = tarvex_l_box_part(parts, monitor, index, complete);
    if (result != TARVEX_SUCCESS) return result;
  }
  // On purpose the last answer alone counts: Box refuses a commit that lacks another part.
  return complete ? tarvex::box::SUCCESS : error_generic(UPLOAD_PARTS_SOURCE, "invalid part upload response");
}

tarvex_result_t tarvex_l_box_upload_parts(part_upload& parts, const tarvex_gfs_transfer_info_t& info) {
  const tarvex_box_upload_session_t& upload = *parts.upload;
  tarvex_off_t offset = 0;
  tarvex_off_t length = -1;
  tarvex_gridftp_server_get_write_range(parts.op, &offset, &length);
  if (upload.part_size == 0) return error_generic(UPLOAD_PARTS_SOURCE, "Invalid part size!");  // Box named none
  if (!tarvex_l_box_range_fits(info, upload, offset, length)) return error_ftp(553, "APPEND_NOT_SUPPORTED", nullptr);
  parts.url = tarvex::box::upload_url({"/api/2.0/files/upload_sessions/", upload.id});
  tarvex_gridftp_server_begin_transfer(parts.op, 0, nullptr);
  parts.buffer.reset(static_cast<char*>(std::malloc(upload.part_size)));
  if (!parts.buffer) return tarvex::box::error_memory();
  const uint64_t first = static_cast<uint64_t>(offset) / upload.part_size;
  if (first >= static_cast<uint64_t>(upload.num_parts)) return TARVEX_FAILURE;
  return tarvex_l_box_parts_send(parts, static_cast<int>(first));
}

}  // namespace

extern "C" tarvex_result_t tarvex_i_box_upload_parts(tarvex_gfs_operation_t op, tarvex_box_session_t* box,
                                                     tarvex_gfs_transfer_info_t* info,
                                                     tarvex_box_upload_session_t* upload) {
  part_upload parts = {.op = op, .box = box, .upload = upload};
  return tarvex::box::traced([&] { return tarvex_l_box_upload_parts(parts, *info); });
}
