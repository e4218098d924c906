#include "item.h"
#include "recv.h"
#include "recv_version.h"
#include "small_upload.h"
#include "trace.h"

using tarvex::box::small_upload;

namespace {

constexpr tarvex::box::error_source RECV_SMALL_SOURCE("tarvex_i_box_recv_small");

/// One attempt: the data channel cannot be read twice.
tarvex_result_t tarvex_l_box_recv_small(tarvex_gfs_operation_t op, const tarvex_gfs_transfer_info_t* info,
                                        tarvex_box_session_t* box, const tarvex_box_path_info_t* parent) {
  tarvex_dsi_rest_gridftp_op_arg_t data = {.op = op, .offset = 0, .length = 0, .eof = false};
  tarvex_gridftp_server_get_write_range(op, &data.offset, &data.length);
  small_upload upload = {.url = tarvex::box::upload_url({"/api/2.0/files/content"}),
                         .write = tarvex_dsi_rest_write_gridftp_op,
                         .write_arg = &data};
  std::string modtime;
  tarvex_result_t result = tarvex::box::recv_modification_time(op, modtime);
  if (result == TARVEX_SUCCESS) result = tarvex::box::small_upload_content_type(upload.content_type);
  if (result != TARVEX_SUCCESS) return result;
  upload.name = tarvex::box::path_split(info->pathname, RECV_SMALL_SOURCE.function).name;
  upload.attributes = tarvex::box::small_upload_attributes(tarvex::box::placement(upload.name, parent->id), modtime);
  if (!upload.attributes) return tarvex::box::error_name();
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  tarvex::box::answer stored;
  result = tarvex::box::small_upload_post(box, RECV_SMALL_SOURCE, upload, stored);
  if (result != TARVEX_SUCCESS) return result;
  return tarvex::box::recv_entries_store(box, RECV_SMALL_SOURCE, stored.document.get(), parent->name);
}

}  // namespace

extern "C" tarvex_result_t tarvex_i_box_recv_small(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* info,
                                                   tarvex_box_session_t* box, tarvex_box_path_info_t* parent) {
  return tarvex::box::traced([&] {
    const auto target = tarvex::box::version_target_at(box, info->pathname, *parent);
    return target ? tarvex::box::recv_version(op, *info, box, *parent, *target)
                  : tarvex_l_box_recv_small(op, info, box, parent);
  });
}
