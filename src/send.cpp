#include "content_location.h"
#include "range_download.h"
#include "trace.h"

using tarvex::box::answer;
using tarvex::box::content_version;
using tarvex::box::error_changed;
using tarvex::box::range_leftover;
using tarvex::box::ranges_worth;
using tarvex::box::request;
using tarvex::box::request_header;
using tarvex::box::SUCCESS;
using tarvex::box::version_record;

namespace {

constexpr tarvex::box::error_source SEND_SOURCE("tarvex_i_box_send");

/// One retrieval of a file.
struct sending {
  tarvex_gfs_operation_t op;
  tarvex_box_session_t* box;
  const std::string id;
  const uint64_t size;                          ///< as it was last seen
  std::optional<content_version> version = {};  ///< once ranges were fetched side by side; all is of this one
  bool in_one_stream = !ranges_worth(size);
};

/// What an answer with content says of the version has to be what the others said.
tarvex_result_t tarvex_l_box_check_head(content_version& version, int status,
                                        const tarvex_dsi_rest_key_array_t& headers) {
  if (status >= 300) return SUCCESS;
  return version.compare(status, headers) == content_version::verdict::same ? SUCCESS : error_changed();
}

/// Streams the content at `url` into the operation. No delay: the token's request before it was paced.
tarvex_result_t tarvex_l_box_download(sending& file, const std::string& url, const std::vector<request_header>& range,
                                      int& retries, tarvex_dsi_rest_gridftp_op_arg_t target) {
  request call = {
      .source = SEND_SOURCE,
      .url = url,
      .headers = range,
      .reads_document = false,
      .read = tarvex_dsi_rest_read_gridftp_op,
      .read_arg = &target,
      .shared_retries = &retries,
      .delayed = false,
      .before_attempt = [&] { target.eof = false; },
  };
  if (file.version) {
    call.on_head = [&](int status, const tarvex_dsi_rest_key_array_t& headers) {
      return tarvex_l_box_check_head(*file.version, status, headers);
    };
  }
  answer ignored;
  return tarvex::box::request_perform(file.box, call, ignored);
}

tarvex_result_t tarvex_l_box_send_stream(sending& file, tarvex_off_t start_byte, tarvex_off_t byte_count) {
  const auto range = tarvex::box::range_headers(start_byte, byte_count);
  int retries = 1;  // for the content request and the download together, on purpose
  answer content;
  tarvex_result_t result =
      tarvex::box::content_location(file.box, SEND_SOURCE, file.id.c_str(), range, retries, content);
  if (result == TARVEX_SUCCESS && file.version) {
    result = tarvex::box::version_check(file.box, SEND_SOURCE, file.id.c_str(), *file.version);
  }
  if (result != TARVEX_SUCCESS) return result;
  return tarvex_l_box_download(file, content.location, range, retries,
                               {.op = file.op, .offset = start_byte, .length = byte_count, .eof = false});
}

/// Whether a range of the file goes side by side. What its record says of it now is what the download is planned by;
/// without a record there is no plan.
bool tarvex_l_box_is_side_by_side(sending& file, tarvex_off_t start_byte, tarvex_off_t byte_count) {
  if (file.in_one_stream || start_byte < 0) return false;
  const auto start = static_cast<uint64_t>(start_byte);
  const auto left = [&](uint64_t size) -> uint64_t {
    if (start > size || (byte_count >= 0 && static_cast<uint64_t>(byte_count) > size - start)) return 0;
    return byte_count < 0 ? size - start : static_cast<uint64_t>(byte_count);
  };
  if (!ranges_worth(left(file.size))) return false;
  if (!file.version) {
    version_record record;
    const tarvex_result_t result = tarvex::box::version_record_get(file.box, SEND_SOURCE, file.id.c_str(), record);
    file.in_one_stream = result != TARVEX_SUCCESS || !ranges_worth(left(record.size));
    tarvex_result_release(result);
    if (file.in_one_stream) return false;
    file.version.emplace(std::move(record));
  }
  return ranges_worth(left(file.version->record().size));
}

tarvex_result_t tarvex_l_box_send_range(sending& file, tarvex_off_t start_byte, tarvex_off_t byte_count) {
  const bool known_version = file.version.has_value();
  if (!tarvex_l_box_is_side_by_side(file, start_byte, byte_count)) {
    return tarvex_l_box_send_stream(file, start_byte, byte_count);
  }
  range_leftover left;
  const tarvex_result_t result = tarvex::box::ranges_send(
      file.op, file.box, SEND_SOURCE,
      {.id = file.id.c_str(), .offset = start_byte, .length = byte_count, .known_version = known_version},
      *file.version, left);
  if (result != TARVEX_SUCCESS || left.gaps.empty()) return result;
  file.in_one_stream = true;
  if (!file.version->begun()) file.version.reset();
  for (const auto& [offset, length] : left.gaps) {
    int retries = 1;
    const tarvex_result_t sent =
        tarvex_l_box_download(file, left.url, tarvex::box::range_headers(offset, length), retries,
                              {.op = file.op, .offset = offset, .length = length, .eof = false});
    if (sent != TARVEX_SUCCESS) return sent;
  }
  return SUCCESS;
}

/// Ends what the REST client remembers of the operation, before it is finished.
struct reading_scope {
  tarvex_gfs_operation_t op;
  ~reading_scope() { tarvex_dsi_rest_operation_over(op); }
};

tarvex_result_t tarvex_l_box_send(tarvex_gfs_operation_t op, tarvex_box_session_t* box, const char* pathname) {
  tarvex_box_path_info_t* path_info = nullptr;
  tarvex_result_t result = tarvex_box_token_refresh(box, op);
  if (result == TARVEX_SUCCESS) result = tarvex_box_path_resolve(box, pathname, &path_info, nullptr);
  if (result != TARVEX_SUCCESS) return result;
  const reading_scope scope = {op};
  sending file = {.op = op, .box = box, .id = path_info->id, .size = path_info->size};
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  tarvex_off_t start_byte = 0;
  tarvex_off_t byte_count = 0;
  do {
    tarvex_gridftp_server_get_read_range(op, &start_byte, &byte_count);
    if (byte_count == 0) return TARVEX_SUCCESS;
    result = tarvex_l_box_send_range(file, start_byte, byte_count);
  } while (result == TARVEX_SUCCESS && byte_count >= 1);
  return result;
}

}  // namespace

extern "C" void tarvex_i_box_send(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* transfer_info,
                                  void* user_arg) {
  auto* const box = static_cast<tarvex_box_session_t*>(user_arg);
  tarvex::box::reported([&] { return tarvex_l_box_send(op, box, transfer_info->pathname); },
                        [&](tarvex_result_t result) { tarvex_gridftp_server_finished_transfer(op, result); });
}
