#include "content_location.h"
#include "digest.h"
#include "text.h"
#include "trace.h"

#include <strings.h>

#include <cstring>
#include <string>

using tarvex::box::request;

namespace {

constexpr tarvex::box::error_source CKSM_SOURCE("tarvex_i_box_cksm");

enum class algorithm { none = 0, md5 = 1, sha1 = 2 };

int tarvex_l_box_seconds() {
  timeval now{};
  tarvex_time_now(&now);
  return static_cast<int>(now.tv_sec);
}

bool tarvex_l_box_response_is_due(const tarvex_i_box_cksm_state_t& state) {
  return state.response_due != 0 && state.response_due <= tarvex_l_box_seconds();
}

/// Tells the client how far the checksum is, when it is time to.
void tarvex_l_box_progress(tarvex_i_box_cksm_state_t& state) {
  if (!tarvex_l_box_response_is_due(state)) return;
  tarvex_gridftp_server_intermediate_command(state.op, TARVEX_SUCCESS, std::to_string(state.total_bytes).c_str());
  state.response_due = tarvex_l_box_seconds() + state.response_freq;
}

algorithm tarvex_l_box_algorithm(const char* name) {
  if (name == nullptr) return algorithm::none;
  if (strcasecmp(name, "MD5") == 0) return algorithm::md5;
  return strcasecmp(name, "SHA1") == 0 ? algorithm::sha1 : algorithm::none;
}

/// One checksum command.
struct cksm_command {
  tarvex_gfs_operation_t op;
  const tarvex_gfs_command_info_t* info;
  tarvex_box_session_t* box;
  algorithm wanted = algorithm::none;
  tarvex_box_path_info_t* item = nullptr;
  tarvex_box_path_info_t* parent = nullptr;
  std::string reply = {};  ///< the digest, at most 40 characters

  bool whole_file() const { return info->cksm_offset == 0 && info->cksm_length == -1; }
};

/// Fills in the reply if Box, or a checksum command before, has told the digest.
bool tarvex_l_box_known(cksm_command& command) {
  const char* const digest = command.wanted == algorithm::md5 ? command.item->md5 : command.item->sha1;
  if (digest == nullptr) return false;
  command.reply.assign(digest, strnlen(digest, 40));
  return true;
}

/// Fetches the file's record afresh, with its metadata. A fetch that fails leaves the digest to be computed.
tarvex_result_t tarvex_l_box_fetch(cksm_command& command) {
  const std::string id = command.item->id;
  const std::string parent_path = command.parent->name;
  const tarvex_result_t fetched =
      tarvex_box_get_file_info(command.box, id.c_str(), parent_path.c_str(), nullptr, nullptr);
  tarvex_result_release(fetched);
  // The record may have been replaced either way.
  return tarvex_box_path_resolve(command.box, command.info->pathname, &command.item, nullptr);
}

void tarvex_l_box_digests_begin(tarvex_i_box_cksm_state_t& state) {
  state.total_bytes = 0;
  tarvex::box::md5_begin(state.md5_ctx);
  tarvex::box::sha1_begin(state.sha_ctx);
}

/// Downloads the range once into the digests.
tarvex_result_t tarvex_l_box_download(const cksm_command& command, tarvex_i_box_cksm_state_t& state) {
  const auto range = tarvex::box::range_headers(command.info->cksm_offset, command.info->cksm_length);
  int retries = 1;  // for the content request and the download together, on purpose
  tarvex::box::answer content;
  const tarvex_result_t result =
      tarvex::box::content_location(command.box, CKSM_SOURCE, command.item->id, range, retries, content);
  if (result != TARVEX_SUCCESS) return result;
  const request call = {
      .source = CKSM_SOURCE,
      .url = content.location,
      .headers = range,
      .reads_document = false,
      .read = tarvex_i_box_cksm_cb,  // by default a second attempt feeds the same digests on, on purpose
      .read_arg = &state,
      .shared_retries = &retries,
      .pacing = &command.box->user_retry,
      .before_attempt =
          [&] {
            if (tarvex_i_box_cksm_restart == 1) tarvex_l_box_digests_begin(state);
            tarvex_l_box_progress(state);
          },
  };
  tarvex::box::answer ignored;
  return request_perform(command.box, call, ignored);
}

/// Remembers the MD5 if the bytes hashed were Box's whole current file.
void tarvex_l_box_record(const cksm_command& command, const std::string& md5, const std::string& sha1) {
  tarvex_box_path_info_t* const item = command.item;
  if (item->sha1 == nullptr || sha1 != item->sha1) return;
  tarvex::box::text_replace(item->md5, md5.c_str());
  const tarvex_result_t stored = tarvex_i_box_set_metadata(command.box, item, "tarvex-md5", md5.c_str());
  if (stored == TARVEX_SUCCESS) return;
  TARVEX_BOX_LOG_DEBUG(CKSM_SOURCE.function, "cksm metadata set failed: path=%s\n", command.info->pathname);
  tarvex_result_release(stored);
}

tarvex_result_t tarvex_l_box_compute(cksm_command& command) {
  tarvex_i_box_cksm_state_t state{};
  state.op = command.op;
  tarvex_gridftp_server_get_update_interval(command.op, &state.response_freq);
  if (state.response_freq > 0) state.response_due = tarvex_l_box_seconds() + state.response_freq;
  tarvex_l_box_digests_begin(state);
  if (command.info->cksm_length != 0) {
    do {  // an explicit length is hashed again and again until a request fails, on purpose
      const tarvex_result_t result = tarvex_l_box_download(command, state);
      if (result != TARVEX_SUCCESS) return result;
    } while (command.info->cksm_length > 0);
  }
  tarvex::box::md5_digest md5{};
  tarvex::box::sha1_digest sha1{};
  tarvex::box::md5_finish(state.md5_ctx, md5);
  tarvex::box::sha1_finish(state.sha_ctx, sha1);
  const std::string md5_text = tarvex::box::hex_text(md5);
  const std::string sha1_text = tarvex::box::hex_text(sha1);
  tarvex_l_box_record(command, md5_text, sha1_text);
  command.reply = command.wanted == algorithm::sha1 ? sha1_text : md5_text;
  return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_cksm(cksm_command& command) {
  command.wanted = tarvex_l_box_algorithm(command.info->cksm_alg);
  if (command.wanted == algorithm::none) return TARVEX_SUCCESS;  // without a digest, on purpose
  const tarvex_result_t found =
      tarvex_box_path_resolve(command.box, command.info->pathname, &command.item, &command.parent);
  if (found != TARVEX_SUCCESS) return found;
  if (command.whole_file()) {
    if (tarvex_l_box_known(command)) return TARVEX_SUCCESS;
    if (command.wanted == algorithm::md5 && command.parent != nullptr) {
      const tarvex_result_t fetched = tarvex_l_box_fetch(command);
      if (fetched != TARVEX_SUCCESS) return fetched;
      if (tarvex_l_box_known(command)) return TARVEX_SUCCESS;
    }
  }
  return tarvex_l_box_compute(command);
}

}  // namespace

extern "C" {

void tarvex_i_box_cksm(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info, tarvex_box_session_t* box) {
  cksm_command command = {.op = op, .info = cmd_info, .box = box};
  tarvex::box::reported([&] { return tarvex_l_box_cksm(command); },
                        [&](tarvex_result_t result) {
                          const char* const text = command.reply.empty() ? nullptr : command.reply.c_str();
                          tarvex_gridftp_server_finished_command(op, result, text);
                        });
}

tarvex_result_t tarvex_i_box_cksm_cb(void* callback_arg, void* buffer, size_t buffer_length) {
  auto& state = *static_cast<tarvex_i_box_cksm_state_t*>(callback_arg);
  state.total_bytes += static_cast<tarvex_off_t>(buffer_length);
  tarvex_l_box_progress(state);
  tarvex::box::md5_update(state.md5_ctx, buffer, buffer_length);
  tarvex::box::sha1_update(state.sha_ctx, buffer, buffer_length);
  return TARVEX_SUCCESS;
}

}  // extern "C"
