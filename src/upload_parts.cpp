#include "part_flight.h"
#include "part_request.h"
#include "trace.h"
#include "upload_gap.h"

#include <cstdlib>

using tarvex::box::error_ftp;
using tarvex::box::error_generic;
using tarvex::box::request;
using tarvex::box::SUCCESS;

namespace {

constexpr tarvex::box::error_source UPLOAD_PARTS_SOURCE("tarvex_i_box_upload_parts");

/// One upload whose parts are sent one after the other.
struct part_upload {
  tarvex_gfs_operation_t op;
  tarvex_box_session_t* box;
  tarvex_box_upload_session_t* upload;
  tarvex::c_string buffer = {};          ///< `part_size` bytes
  tarvex::box::digest_mark before = {};  ///< of the digests at the part's start
  tarvex::box::read_monitor monitor = {};
};

/// Reads a part and digests it as it comes. What a read that failed has got is not digested in the end, so that the
/// upload can go on at the part.
tarvex_result_t tarvex_l_box_part_read(part_upload& parts, tarvex::box::upload_digests& digests,
                                       tarvex::box::part_content& part) {
  digests.begin_part(parts.before);
  const bool last = part.index == parts.upload->num_parts - 1;
  const tarvex_result_t result =
      parts.monitor.fill(parts.op, reinterpret_cast<unsigned char*>(parts.buffer.get()), parts.upload->part_size, last,
                         [&](const unsigned char* piece, size_t length) {
                           digests.add(piece, length);
                           return true;
                         });
  if (result != TARVEX_SUCCESS) {
    digests.return_to(parts.before);
    return result;
  }
  part.data = parts.buffer.get();
  part.length = parts.monitor.length();
  const char* const failure = digests.finish_part(part.sha1);
  return failure != nullptr ? error_generic(UPLOAD_PARTS_SOURCE, failure) : SUCCESS;
}

/// Reads one part and sends it. \param complete  takes false when Box's answer holds no part
tarvex_result_t tarvex_l_box_part(part_upload& parts, tarvex::box::upload_digests& digests, int index, bool& complete) {
  tarvex::box::part_content part = {.index = index};
  tarvex_result_t result = tarvex_l_box_part_read(parts, digests, part);
  if (result != TARVEX_SUCCESS) return result;
  tarvex_dsi_rest_write_block_arg_t block{};
  request call = part_request(UPLOAD_PARTS_SOURCE, *parts.upload, part, block);
  call.attempts = 3;
  call.renew_token_for = parts.op;
  tarvex::box::answer sent;
  result = request_perform(parts.box, call, sent);
  const char* const failure = digests.settle();  // the buffer is used again
  if (result != TARVEX_SUCCESS) return result;
  if (failure != nullptr) return error_generic(UPLOAD_PARTS_SOURCE, failure);
  if (!sent.document) return tarvex::box::error_memory();
  json_t* const record = json_object_get(sent.document.get(), "part");
  complete = record != nullptr;
  if (complete) json_array_append(parts.upload->part_array, record);
  return TARVEX_SUCCESS;
}

/// Only whole files are taken, from the start or from where a part begins.
bool tarvex_l_box_range_fits(const tarvex_gfs_transfer_info_t& info, const tarvex_box_upload_session_t& upload,
                             tarvex_off_t offset, tarvex_off_t length) {
  if (length != -1 && static_cast<uint64_t>(length) != info.alloc_size) return false;
  return offset == 0 || (offset > 0 && static_cast<uint64_t>(offset) % upload.part_size == 0);
}

/// The parts from `first` on, one after the other.
tarvex_result_t tarvex_l_box_parts_send(part_upload& parts, uint64_t first) {
  parts.buffer.reset(static_cast<char*>(std::malloc(parts.upload->part_size)));
  if (!parts.buffer) return tarvex::box::error_memory();
  if (first >= static_cast<uint64_t>(parts.upload->num_parts)) return TARVEX_FAILURE;
  tarvex::box::upload_digests digests(*parts.upload);
  bool complete = true;
  for (int index = static_cast<int>(first); index < parts.upload->num_parts; ++index) {
    const tarvex_result_t result = tarvex_l_box_part(parts, digests, index, complete);
    if (result != TARVEX_SUCCESS) return result;
  }
  // On purpose the last answer alone counts: Box refuses a commit that lacks another part.
  return complete ? SUCCESS : error_generic(UPLOAD_PARTS_SOURCE, "invalid part upload response");
}

/// Whether parts go side by side, which lets an upload go on at its gap alone: what is before it is digested already.
bool tarvex_l_box_side_by_side() {
  return tarvex_i_box_part_concurrency > 1;
}

tarvex_result_t tarvex_l_box_upload_parts(part_upload& parts, const tarvex_gfs_transfer_info_t& info) {
  tarvex_box_upload_session_t& upload = *parts.upload;
  tarvex_off_t offset = 0;
  tarvex_off_t length = -1;
  tarvex_gridftp_server_get_write_range(parts.op, &offset, &length);
  if (upload.part_size == 0) return error_generic(UPLOAD_PARTS_SOURCE, "Invalid part size!");  // Box named none
  if (!tarvex_l_box_range_fits(info, upload, offset, length)) return error_ftp(553, "APPEND_NOT_SUPPORTED", nullptr);
  const uint64_t from = static_cast<uint64_t>(offset);
  if (tarvex_l_box_side_by_side() && from != tarvex::box::upload_gap(upload)) {
    return tarvex::box::upload_gap_refusal(upload);
  }
  tarvex_gridftp_server_begin_transfer(parts.op, 0, nullptr);
  const uint64_t first = from / upload.part_size;
  if (!tarvex_l_box_side_by_side()) return tarvex_l_box_parts_send(parts, first);
  if (first >= static_cast<uint64_t>(upload.num_parts)) return TARVEX_FAILURE;
  return tarvex::box::part_flight(parts.op, parts.box, upload).run(static_cast<int>(first));
}

}  // namespace

extern "C" tarvex_result_t tarvex_i_box_upload_parts(tarvex_gfs_operation_t op, tarvex_box_session_t* box,
                                                     tarvex_gfs_transfer_info_t* info,
                                                     tarvex_box_upload_session_t* upload) {
  part_upload parts = {.op = op, .box = box, .upload = upload};
  return tarvex::box::traced([&] { return tarvex_l_box_upload_parts(parts, *info); });
}
