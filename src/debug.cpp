#include "debug.h"

#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>

tarvex_debug_handle_t tarvex_i_TARVEX_BOX_debug_handle = {};

const char* tarvex_i_box_debug_level_names[17] = {nullptr, "TRACE", "DEBUG", nullptr, "INFO",  nullptr,
                                                  nullptr, nullptr, "WARN",  nullptr, nullptr, nullptr,
                                                  nullptr, nullptr, nullptr, nullptr, "ERROR"};

namespace {

constexpr size_t FORMAT_SIZE = 4096;

tarvex_debug_handle_t& handle = tarvex_i_TARVEX_BOX_debug_handle;

void tarvex_l_box_debug_vprintf(const char* format, va_list arguments) {
  if (handle.file == nullptr) return;
  if (!handle.thread_ids) {
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it
    (void)std::vfprintf(handle.file, format, arguments);
    return;
  }
  std::array<char, FORMAT_SIZE> full{};
  (void)std::snprintf(full.data(), full.size(), "%lu::%s", tarvex_thread_self(), format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it
  (void)std::vfprintf(handle.file, full.data(), arguments);
}

void tarvex_l_box_debug_time_vprintf(const char* format, va_list arguments) {
  if (handle.file == nullptr) return;
  timeval now{};
  tarvex_time_now(&now);
  const auto seconds = static_cast<unsigned long>(now.tv_sec);
  const auto nanoseconds = static_cast<unsigned long>(now.tv_usec) * 1000;
  std::array<char, FORMAT_SIZE> full{};
  if (handle.thread_ids) {
    (void)std::snprintf(full.data(), full.size(), "%lu:%lu.%.9lu::%s", tarvex_thread_self(), seconds, nanoseconds,
                        format);
  } else {
    (void)std::snprintf(full.data(), full.size(), "%lu.%.9lu::%s", seconds, nanoseconds, format);
  }
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it
  (void)std::vfprintf(handle.file, full.data(), arguments);
}

}  // namespace

extern "C" {

void tarvex_i_TARVEX_BOX_debug_printf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tarvex_l_box_debug_vprintf(format, arguments);
  va_end(arguments);
}

void tarvex_i_TARVEX_BOX_debug_time_printf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tarvex_l_box_debug_time_vprintf(format, arguments);
  va_end(arguments);
}

void tarvex_i_TARVEX_BOX_debug_fwrite(const void* buffer, size_t size, size_t count) {
  if (handle.file != nullptr) (void)std::fwrite(buffer, size, count, handle.file);
}

}  // extern "C"

namespace tarvex::box {

void debug_line(int level, const char* function, const char* format, ...) noexcept {
  const auto bit = static_cast<unsigned>(level);
  FILE* const stream = handle.file;
  if (stream == nullptr || (handle.levels & bit) == 0) return;
  flockfile(stream);
  const auto prefix =
      (handle.timestamp_levels & bit) != 0 ? tarvex_i_TARVEX_BOX_debug_time_printf : tarvex_i_TARVEX_BOX_debug_printf;
  prefix("box: %5s: %li: %s: ", tarvex_i_box_debug_level_names[level], static_cast<long>(getpid()), function);
  va_list arguments;
  va_start(arguments, format);
  tarvex_l_box_debug_vprintf(format, arguments);
  va_end(arguments);
  funlockfile(stream);
}

}  // namespace tarvex::box
