#include "plugin_fixture.h"

#include <cstring>
#include <mutex>

namespace {

Framework& of(tarvex_gfs_operation_t op) {
  return *reinterpret_cast<Framework*>(op);
}

void note_batch(Framework& framework, tarvex_gridftp_server_control_stat_t* entries, int count) {
  auto& names = framework.batches.emplace_back();
  for (int i = 0; i < count; ++i) {
    names.push_back(entries[i].name != nullptr ? entries[i].name : "(null)");
    framework.entries.push_back(entries[i]);
  }
}

}  // namespace

void Framework::complete(tarvex_result_t result) {
  ++completions;
  reply_code = tarvex_gfs_ftp_response_error_code(tarvex_error_peek(result));
  const char *file = nullptr, *function = nullptr;
  if (tarvex_error_get_source(tarvex_error_peek(result), &file, &function, &line) && file != nullptr) {
    source = std::string(file) + ":" + function;
  }
  error = text_of(result);
}

extern "C" {

tarvex_result_t tarvex_gridftp_server_get_config_data(tarvex_gfs_operation_t op, const char* key, char** value) {
  of(op).asked.emplace_back(key);
  auto& values = of(op).config[key];
  *value = values.empty() ? nullptr : strdup(values.front().c_str());
  if (values.size() > 1) values.pop_front();
  return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_gridftp_server_set_checksum_support(tarvex_gfs_operation_t op, const char* algorithms) {
  of(op).checksums = algorithms;
  return of(op).checksums_fail ? failure("no checksums") : tarvex_result_t{};
}

void tarvex_gridftp_server_finished_session_start(tarvex_gfs_operation_t op, tarvex_result_t result, void* session,
                                                  const char* username, const char* home_dir) {
  EXPECT_EQ(username, nullptr);
  of(op).session = session;
  of(op).text = home_dir != nullptr ? home_dir : "(null)";
  of(op).complete(result);
}

void tarvex_gridftp_server_finished_stat_partial(tarvex_gfs_operation_t op, tarvex_result_t result,
                                                 tarvex_gridftp_server_control_stat_t* entries, int count) {
  EXPECT_EQ(result, TARVEX_SUCCESS);
  note_batch(of(op), entries, count);
}

void tarvex_gridftp_server_finished_stat(tarvex_gfs_operation_t op, tarvex_result_t result,
                                         tarvex_gridftp_server_control_stat_t* entries, int count) {
  note_batch(of(op), entries, count);
  of(op).complete(result);
}

void tarvex_gridftp_server_get_update_interval(tarvex_gfs_operation_t op, int* seconds) {
  *seconds = of(op).update_interval;
}

void tarvex_gridftp_server_intermediate_command(tarvex_gfs_operation_t op, tarvex_result_t, const char* text) {
  of(op).progress.emplace_back(text);
}

void tarvex_gridftp_server_finished_command(tarvex_gfs_operation_t op, tarvex_result_t result, const char* text) {
  of(op).text = text != nullptr ? text : "(null)";
  of(op).complete(result);
}

void tarvex_gridftp_server_begin_transfer(tarvex_gfs_operation_t op, int, void*) {
  ++of(op).begun;
}

void tarvex_gridftp_server_get_read_range(tarvex_gfs_operation_t op, tarvex_off_t* offset, tarvex_off_t* length) {
  auto& ranges = of(op).read_ranges;
  std::tie(*offset, *length) = ranges.empty() ? std::pair<tarvex_off_t, tarvex_off_t>{0, 0} : ranges.front();
  if (!ranges.empty()) ranges.pop_front();
}

void tarvex_gridftp_server_get_write_range(tarvex_gfs_operation_t op, tarvex_off_t* offset, tarvex_off_t* length) {
  std::tie(*offset, *length) = of(op).write_range;
}

tarvex_result_t tarvex_gridftp_server_get_recv_modification_time(tarvex_gfs_operation_t op, time_t* time) {
  *time = of(op).modification_time;
  if (!of(op).modification_time_fails) return TARVEX_SUCCESS;
  return failure("no time");
}

tarvex_result_t tarvex_gridftp_server_register_read(tarvex_gfs_operation_t op, unsigned char* buffer, size_t length,
                                                    tarvex_gridftp_server_read_cb_t callback, void* user_arg) {
  Framework& framework = of(op);
  if (framework.register_fails) return TARVEX_FAILURE;
  Block block = framework.blocks.empty() ? Block{.eof = true} : framework.blocks.front();
  EXPECT_LE(block.data.size(), length);
  if (!framework.blocks.empty()) framework.blocks.pop_front();
  framework.io.emplace_back([=] {
    std::memcpy(buffer, block.data.data(), block.data.size());
    const tarvex::owned_result result(block.fails ? failure("cable pulled") : tarvex_result_t{});
    callback(op, result.get(), buffer, block.data.size(), 0, block.eof || block.fails, user_arg);
  });
  return TARVEX_SUCCESS;
}

void tarvex_gridftp_server_update_bytes_recvd(tarvex_gfs_operation_t op, tarvex_off_t nbytes) {
  static std::mutex mutex;  // a read may be over before the one before it is counted
  const std::lock_guard lock(mutex);
  of(op).received += nbytes;
}

void tarvex_gridftp_server_finished_transfer(tarvex_gfs_operation_t op, tarvex_result_t result) {
  of(op).io.clear();
  of(op).complete(result);
}

}  // extern "C"

PluginTest::PluginTest() {
  char name[] = "/tmp/tarvex-box-test-with-a-name-beyond-the-first-buffer-of-sixty-four-bytes-XXXXXX";
  home = mkdtemp(name);
  box_script = {};
  box_script.user_home = home;
  tarvex_i_box_api_per_second = 16;
  framework.config["config"] = {"{}"};
  framework.config["creds"] = {
      R"({"access_token":"T","token_expiry":"2030-01-01T00:00:00.0+00:00","sub":"123","max_upload":200000000})"};
}

PluginTest::~PluginTest() {
  if (session != nullptr) tarvex_i_box_destroy(session);
  EXPECT_TRUE(box_script.answers.empty()) << box_script.answers.size() << " answers were not asked for";
  std::filesystem::remove_all(home);
}

tarvex_box_session_t* PluginTest::login(const std::vector<std::string>& root_items) {
  box_script.expect({code(200, page_json(root_items))});
  tarvex_gfs_session_info_t info = {.username = "alice", .remote_host = "::1"};
  tarvex_i_box_start(framework.op(), &info);
  EXPECT_EQ(framework.completions, 1);
  EXPECT_EQ(framework.error, "");
  session = static_cast<tarvex_box_session_t*>(framework.session);
  box_script.sent.clear();
  box_script.waits.clear();
  return session;
}

Framework& PluginTest::next() {
  auto config = framework.config;
  framework = {};
  framework.config = config;
  return framework;
}

std::string PluginTest::command(tarvex_gfs_command_type_t type, const char* path, const char* from) {
  tarvex_gfs_command_info_t info{};
  info.command = type;
  info.pathname = path;
  info.from_pathname = from;
  return run(tarvex_i_box_command, info);
}

std::string PluginTest::cksm(const char* algorithm, const char* path, tarvex_off_t offset, tarvex_off_t length) {
  tarvex_gfs_command_info_t info{};
  info.command = TARVEX_GFS_CMD_CKSM;
  info.pathname = path;
  info.cksm_alg = algorithm;
  info.cksm_offset = offset;
  info.cksm_length = length;
  const std::string error = run(tarvex_i_box_command, info);
  return error.empty() ? framework.text : error;
}

std::string PluginTest::stat_path(const char* path, bool file_only) {
  next();
  tarvex_gfs_stat_info_t info{};
  info.file_only = file_only;
  info.pathname = path;
  return run(tarvex_i_box_stat, info);
}

std::string PluginTest::send(const char* path) {
  return run(tarvex_i_box_send, tarvex_gfs_transfer_info_t{.pathname = path, .alloc_size = 0, .truncate = false});
}

std::string PluginTest::recv(const char* path, uint64_t size, bool truncate) {
  return run(tarvex_i_box_recv, tarvex_gfs_transfer_info_t{.pathname = path, .alloc_size = size, .truncate = truncate});
}
