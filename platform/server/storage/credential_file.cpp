#include "storage/credential_file.h"

#include "base/log.h"
#include "tarvex_common.hpp"
#include "tarvex_gridftp_server.h"

#include <fcntl.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarvex::server {

namespace {

constexpr std::size_t CREDENTIAL_BYTES_MAX = 1 << 20;

tarvex_result_t refusal(const std::string& path, int code, const std::string& why) {
  log_error("credential file {}: {}", path, why);
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
      nullptr, nullptr, code, "CREDENTIAL_NOT_USABLE", "The server cannot use the credential of this account; its log says why."));
}

bool is_want_of_resources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

/// Why the file is not to be read; empty when it is.
std::string objection(int file) {
  struct stat status = {};
  if (fstat(file, &status) != 0) return std::strerror(errno);
  if (!S_ISREG(status.st_mode)) return "it is no regular file";
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others may write it; chmod 600 it";
  if (status.st_size > static_cast<off_t>(CREDENTIAL_BYTES_MAX)) return "it is larger than 1 MiB";
  return {};
}

bool is_json_object(const std::string& text) {
  const owner<json_t, json_decref> document(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, nullptr));
  return json_is_object(document.get());
}

/// \return 0, or what reading failed with.
int read_all(int file, std::string& text) {
  text.resize(CREDENTIAL_BYTES_MAX + 1);
  std::size_t length = 0;
  while (length < text.size()) {
    const ssize_t count = read(file, text.data() + length, text.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  text.resize(length);
  return 0;
}

}  // namespace

tarvex_result_t credential_read(const std::string& path, std::optional<std::string>& text) {
  if (path.empty()) return TARVEX_SUCCESS;
  // Without O_NONBLOCK a FIFO would be waited for.
  const descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file && errno == ENOENT) return TARVEX_SUCCESS;
  if (!file) return refusal(path, is_want_of_resources(errno) ? 421 : 530, std::strerror(errno));
  const std::string why = objection(file.get());
  if (!why.empty()) return refusal(path, 530, why);
  std::string content;
  if (const int error = read_all(file.get(), content); error != 0) return refusal(path, 421, std::strerror(error));
  if (content.size() > CREDENTIAL_BYTES_MAX) return refusal(path, 530, "it is larger than 1 MiB");
  if (!is_json_object(content)) return refusal(path, 530, "it holds no JSON object");
  text = std::move(content);
  return TARVEX_SUCCESS;
}

}  // namespace tarvex::server
