#include "scripted_box.h"

#include "../platform/common/results.h"
#include "tarvex_box_common.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <cstdarg>
#include <cstring>
#include <utility>

ScriptedBox box_script;

namespace {

constexpr int RETRYABLE_NUMBER = 7001;
constexpr int FINAL_NUMBER = 7002;

std::string body_of(tarvex_dsi_rest_write_t write, void* argument);

std::string multipart_of(const tarvex_dsi_rest_write_multipart_arg_t& multipart) {
  std::string text;
  for (size_t i = 0; i < multipart.num_parts; ++i) {
    const auto& part = multipart.parts[i];
    for (size_t h = 0; h < part.header.count; ++h) {
      text += std::string(part.header.key_value[h].key) + ": " + part.header.key_value[h].value + "\n";
    }
    text += body_of(part.data_write_callback, part.data_write_callback_arg) + "\n";
  }
  return text;
}

std::string body_of(tarvex_dsi_rest_write_t write, void* argument) {
  if (write == nullptr) return "";
  if (write == tarvex_dsi_rest_write_json) {
    return tarvex::c_string(json_dumps(static_cast<json_t*>(argument), JSON_COMPACT)).get();
  }
  if (write == tarvex_dsi_rest_write_block) {
    const auto& block = *static_cast<tarvex_dsi_rest_write_block_arg_t*>(argument);
    return {static_cast<const char*>(block.block_data), block.block_len};
  }
  if (write == tarvex_dsi_rest_write_multipart) {
    return multipart_of(*static_cast<tarvex_dsi_rest_write_multipart_arg_t*>(argument));
  }
  const auto& data = *static_cast<tarvex_dsi_rest_gridftp_op_arg_t*>(argument);
  return "DATA " + std::to_string(data.offset) + "+" + std::to_string(data.length);
}

std::string line_of(const char* method, const char* uri, const tarvex_dsi_rest_key_array_t* query) {
  std::string line = std::string(method) + " " + uri;
  for (size_t i = 0; query != nullptr && i < query->count; ++i) {
    const auto& pair = query->key_value[i];
    line += (i == 0 ? "?" : "&") + std::string(pair.key);
    if (pair.value != nullptr) line += std::string("=") + pair.value;
  }
  return line;
}

void give_headers(const Answer& answer, const tarvex_dsi_rest_callbacks_t& callbacks) {
  std::vector<tarvex_dsi_rest_key_value_t> pairs;
  for (const auto& [key, value] : answer.headers) {
    pairs.push_back({const_cast<char*>(key.c_str()), const_cast<char*>(value.c_str())});
  }
  const tarvex_dsi_rest_key_array_t headers = {pairs.size(), pairs.data()};
  ASSERT_EQ(callbacks.response_callback(callbacks.response_callback_arg, answer.status, &headers), TARVEX_SUCCESS);
}

void give_body(const Answer& answer, const tarvex_dsi_rest_callbacks_t& callbacks, Sent& sent) {
  void* const argument = callbacks.data_read_callback_arg;
  if (callbacks.data_read_callback == tarvex_dsi_rest_read_json) {
    *static_cast<json_t**>(argument) = json_loads(answer.body.c_str(), 0, nullptr);
  } else if (callbacks.data_read_callback == tarvex_dsi_rest_read_gridftp_op) {
    const auto& target = *static_cast<tarvex_dsi_rest_gridftp_op_arg_t*>(argument);
    sent.target = std::to_string(target.offset) + "+" + std::to_string(target.length);
  } else if (callbacks.data_read_callback != nullptr) {
    std::string data = answer.body;
    ASSERT_EQ(callbacks.data_read_callback(argument, data.data(), data.size()), TARVEX_SUCCESS);
  }
}

Answer answer_to(const Sent& sent) {
  if (box_script.responder) return box_script.responder(sent);
  const Answer answer = box_script.answers.front();
  box_script.answers.pop_front();
  return answer;
}

}  // namespace

extern "C" {

tarvex_result_t tarvex_dsi_rest_request(const char* method, const char* uri, const tarvex_dsi_rest_key_array_t* query,
                                        const tarvex_dsi_rest_key_array_t* headers,
                                        const tarvex_dsi_rest_callbacks_t* callbacks) {
  Sent sent;
  sent.line = line_of(method, uri, query);
  for (size_t i = 0; i < headers->count; ++i) {
    sent.headers.push_back(std::string(headers->key_value[i].key) + ": " + headers->key_value[i].value);
  }
  sent.body = body_of(callbacks->data_write_callback, callbacks->data_write_callback_arg);
  EXPECT_EQ(callbacks->progress_callback, tarvex_dsi_rest_progress_idle_timeout);
  sent.timeout_ms = static_cast<long>(reinterpret_cast<intptr_t>(callbacks->progress_callback_arg));
  if (!box_script.responder && box_script.answers.empty()) {
    ADD_FAILURE() << "no answer is left for " << sent.line;
    return TARVEX_FAILURE;
  }
  const Answer answer = answer_to(sent);
  if (answer.transport == Answer::arrives || !answer.body.empty()) {
    give_headers(answer, *callbacks);
    give_body(answer, *callbacks, sent);
  }
  {
    const std::lock_guard lock(ScriptedBox::mutex());
    box_script.sent.push_back(sent);
  }
  if (answer.transport == Answer::arrives) return TARVEX_SUCCESS;
  const int number = answer.transport == Answer::may_be_retried ? RETRYABLE_NUMBER : FINAL_NUMBER;
  return failure(("transport " + std::to_string(number)).c_str(), number);
}

bool tarvex_dsi_rest_error_is_retryable(tarvex_result_t result) {
  return tarvex_error_get_type(tarvex_error_peek(result)) == RETRYABLE_NUMBER;
}

void tarvex_time_now(timeval* now) {
  if (box_script.real_time) {
    gettimeofday(now, nullptr);
  } else {
    *now = box_script.now;
  }
}

int tarvex_sleep(const timespec* duration) {
  if (duration->tv_nsec < 0 || duration->tv_nsec > 999999999) return EINVAL;
  if (box_script.real_time) return nanosleep(duration, nullptr);
  const std::lock_guard lock(ScriptedBox::mutex());
  box_script.waits.push_back(std::to_string(duration->tv_sec) + "." + std::to_string(duration->tv_nsec));
  return 0;
}

// What a file system without locks, or one that is gone, says.
TARVEX_API int fcntl64(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  static const auto real = reinterpret_cast<int (*)(int, int, void*)>(dlsym(RTLD_NEXT, "fcntl64"));
  const bool locks = command == F_SETLK || command == F_SETLKW;
  if (!locks || box_script.lock_errors.empty()) return real(fd, command, argument);
  errno = box_script.lock_errors.front();
  box_script.lock_errors.pop_front();
  return errno == 0 ? real(fd, command, argument) : -1;
}

TARVEX_API int fstat64(int fd, struct stat64* status) {
  static const auto real = reinterpret_cast<int (*)(int, struct stat64*)>(dlsym(RTLD_NEXT, "fstat64"));
  if (!box_script.lock_errors.empty() || box_script.failing_fstats == 0) return real(fd, status);
  --box_script.failing_fstats;
  errno = EIO;
  return -1;
}

// The password entry of a user whose home is a directory of the test, with strings beyond the first buffer.
TARVEX_API int getpwuid_r(uid_t uid, passwd* entry, char* buffer, size_t length, passwd** found) {
  const std::string text = std::string("tester") + '\0' + box_script.user_home;
  *found = nullptr;
  if (length < text.size() + 1) return errno = ERANGE;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  *entry = {};
  entry->pw_name = buffer;
  entry->pw_dir = buffer + 7;
  entry->pw_uid = uid;
  *found = entry;
  return 0;
}

}  // extern "C"

std::mutex& ScriptedBox::mutex() {
  static std::mutex one;
  return one;
}

std::vector<std::string> ScriptedBox::take_lines() {
  std::vector<std::string> lines;
  for (const Sent& request : std::exchange(sent, {})) lines.push_back(request.line);
  return lines;
}

std::vector<std::string> ScriptedBox::take_waits() {
  std::vector<std::string> asked;
  for (const std::string& wait : std::exchange(waits, {})) {
    if (wait.ends_with(".0")) asked.push_back(wait);
  }
  return asked;
}

std::string item_json(const std::string& type, const std::string& id, const std::string& name,
                      const std::string& parent, const std::string& more) {
  return R"({"type":")" + type + R"(","id":")" + id + R"(","name":")" + name + R"(","parent":{"id":")" + parent +
         R"("})" + more + "}";
}

std::string page_json(const std::vector<std::string>& items, const std::string& marker) {
  std::string text;
  for (const auto& item : items) text += (text.empty() ? "" : ",") + item;
  return R"({"entries":[)" + text + R"(],"next_marker":)" + marker + "}";
}

Answer code(int status, const std::string& body, const char* retry_after) {
  Answer answer = {.status = status, .body = body};
  if (retry_after != nullptr) answer.headers = {{"Retry-After", retry_after}};
  return answer;
}

Answer redirect_answer(const std::string& location) {
  return {.status = 302, .headers = {{"Location", location}}};
}
