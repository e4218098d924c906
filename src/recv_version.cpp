#include "recv_version.h"

#include "digest.h"
#include "read_monitor.h"
#include "recv.h"
#include "small_upload.h"

#include <algorithm>

namespace tarvex::box {

namespace {

constexpr error_source RECV_VERSION_SOURCE("tarvex_i_box_recv_small");

constexpr size_t READ_BYTES = 1 << 20;

using bytes = std::vector<unsigned char>;

/// Reads all that the client sends. The small upload's limit holds for what was not announced as well.
tarvex_result_t tarvex_l_box_read_all(tarvex_gfs_operation_t op, uint64_t announced, bytes& content) {
  const auto limit = static_cast<size_t>(std::max(tarvex_i_box_chunked_minimum, 0));
  content.reserve(std::min<uint64_t>(announced, limit) + READ_BYTES);
  read_monitor monitor;
  size_t filled = 0;
  do {
    filled = content.size();
    if (filled > limit) {
      return error_ftp(451, "SIZE_NOT_ANNOUNCED",
                       "GridFTP-Error: A file of this size that replaces another must be announced with its size.");
    }
    content.resize(filled + READ_BYTES);
    const tarvex_result_t result = monitor.fill(op, content.data() + filled, READ_BYTES, false);
    if (result != TARVEX_SUCCESS) return result;
    content.resize(filled + monitor.length());
  } while (content.size() - filled == READ_BYTES);
  return SUCCESS;
}

/// Reads the content, and checks that it is as long as the client said.
tarvex_result_t tarvex_l_box_content_read(tarvex_gfs_operation_t op, uint64_t announced, bytes& content) {
  tarvex_off_t offset = 0;
  tarvex_off_t length = -1;
  tarvex_gridftp_server_get_write_range(op, &offset, &length);
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  const tarvex_result_t result = tarvex_l_box_read_all(op, announced, content);
  if (result != TARVEX_SUCCESS || length < 0 || content.size() == static_cast<uint64_t>(length)) return result;
  return error_generic(RECV_VERSION_SOURCE, "The client sent " + std::to_string(content.size()) +
                                                " bytes in the place of " + std::to_string(length) + ".");
}

tarvex_result_t tarvex_l_box_digests(const bytes& content, version_store& store) {
  sha1_digest sha1{};
  md5_digest md5{};
  MD5_CTX context{};
  const bool done = sha1_of(content.data(), content.size(), sha1) && md5_begin(context) &&
                    md5_update(context, content.data(), content.size()) && md5_finish(context, md5);
  if (!done) return error_generic(RECV_VERSION_SOURCE, "Failed generating the file's hashes.");
  store.sha1 = hex_text(sha1);
  store.md5 = hex_text(md5);
  return SUCCESS;
}

/// Stores what was meant for a file that is not there any more.
tarvex_result_t tarvex_l_box_store_anew(tarvex_box_session_t* box, const version_store& store, small_upload& upload,
                                        const std::string& modtime) {
  tarvex_result_release(tarvex_box_path_cache_remove(&box->cache, store.path));
  upload.url = upload_url({"/api/2.0/files/content"});
  upload.headers.clear();
  upload.attempts = 1;  // a second one would meet the file of a first one whose answer was lost
  upload.attributes = small_upload_attributes(placement(upload.name, store.parent.id), modtime);
  if (!upload.attributes) return error_name();
  answer stored;
  const tarvex_result_t result = small_upload_post(box, RECV_VERSION_SOURCE, upload, stored);
  if (result != TARVEX_SUCCESS) return result;
  return recv_entries_store(box, RECV_VERSION_SOURCE, stored.document.get(), store.parent.name);
}

}  // namespace

tarvex_result_t recv_version(tarvex_gfs_operation_t op, const tarvex_gfs_transfer_info_t& info,
                             tarvex_box_session_t* box, const tarvex_box_path_info_t& parent,
                             const version_target& target) {
  version_store store = {.path = info.pathname, .parent = parent, .target = target};
  small_upload upload = {.name = path_split(info.pathname).name,
                         .url = upload_url({"/api/2.0/files/", target.id.c_str(), "/content"}),
                         .write = tarvex_dsi_rest_write_block,
                         .attempts = 2};
  version_condition(target.next_etag, upload.headers);
  std::string modtime;
  tarvex_result_t result = recv_modification_time(op, modtime);
  if (result == TARVEX_SUCCESS) result = small_upload_content_type(upload.content_type);
  if (result != TARVEX_SUCCESS) return result;
  upload.attributes = small_upload_attributes(json_ptr(json_pack("{s:s}", "name", upload.name.c_str())), modtime);
  if (!upload.attributes) return error_name();
  bytes content;
  result = tarvex_l_box_content_read(op, info.alloc_size, content);
  if (result == TARVEX_SUCCESS) result = tarvex_l_box_digests(content, store);
  if (result != TARVEX_SUCCESS) return result;
  tarvex_dsi_rest_write_block_arg_t block = {.block_data = content.data(), .block_len = content.size()};
  upload.write_arg = &block;
  answer stored;
  result = small_upload_post(box, RECV_VERSION_SOURCE, upload, stored);
  if (stored.status != STATUS_NOT_FOUND || stored.uncertain) {
    return version_settle(box, RECV_VERSION_SOURCE, store, result, stored);
  }
  tarvex_result_release(result);
  return tarvex_l_box_store_anew(box, store, upload, modtime);
}

}  // namespace tarvex::box
