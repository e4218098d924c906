#include "broker/token_store.h"

#include "base/durable_file.h"
#include "base/regular_file.h"
#include "broker/broker_user.h"
#include "broker/record_name.h"
#include "broker/store_folder.h"
#include "config/secret_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <thread>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::string_view SEALED = "TVXR1", PLAIN = "TVXR0";
constexpr std::size_t GENERATION_BYTES = 8;
constexpr std::size_t HEAD_BYTES = SEALED.size() + store_cipher::KEY_ID_BYTES + GENERATION_BYTES;
constexpr off_t RECORD_BYTES_MAX = 32 * 1024;

std::string head_of(bool sealed, const store_cipher::key_id& key, std::uint64_t generation) {
  std::string head(sealed ? SEALED : PLAIN);
  head.append(reinterpret_cast<const char*>(key.data()), key.size());
  for (std::size_t i = 0; i < GENERATION_BYTES; ++i)
    head.push_back(static_cast<char>(generation >> (8 * (GENERATION_BYTES - 1 - i)) & 0xffU));
  return head;
}

}  // namespace

store_error token_store::open(const configuration& config) {
  folder_ = config.broker_directory;
  encryption_ = config.broker_encryption;
  key_file_ = config.broker_key_file;
  read_key_ = [config](secret& key) { return store_key_read(config, key); };
  if (store_error error = store_folder_open(folder_, broker_user(config)); !error.empty()) return error;
  if (encryption_ == store_encryption::none) return {};
  const std::lock_guard hold(mutex_);
  return load_key();
}

/// The mutex is held.
store_error token_store::load_key() const {
  secret key;
  if (store_error error = read_key_(key); !error.empty()) return error;
  cipher_ = store_cipher::make(key.text());
  return cipher_ ? "" : "the key cannot be prepared by OpenSSL";
}

/// The key may have been replaced since it was read.
std::shared_ptr<const store_cipher> token_store::cipher_for(const store_cipher::key_id& id) const {
  const std::lock_guard hold(mutex_);
  if (next_cipher_ && next_cipher_->id() == id) return next_cipher_;
  if (!cipher_ || cipher_->id() != id) (void)load_key();
  return cipher_ && cipher_->id() == id ? cipher_ : nullptr;
}

std::shared_ptr<const store_cipher> token_store::cipher_in_force() const {
  const std::lock_guard hold(mutex_);
  return next_cipher_ ? next_cipher_ : cipher_;
}

std::string token_store::path_of(const std::string& name) const {
  return folder_ + "/" + record_name(name) + std::string(RECORD_SUFFIX);
}

token_store::lock token_store::lock_account(const std::string& name, std::chrono::milliseconds limit) const {
  constexpr std::chrono::milliseconds LOOK{20};
  const std::string path = folder_ + "/" + record_name(name) + ".lock";
  lock held(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!held || !store_folder_give(folder_, held.get())) return lock();
  const auto end = std::chrono::steady_clock::now() + limit;
  while (flock(held.get(), LOCK_EX | LOCK_NB) != 0) {
    if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() >= end) return lock();
    std::this_thread::sleep_for(LOOK);
  }
  return held;
}

token_store::reading token_store::read(const std::string& name) const {
  std::string content;
  const std::string path = path_of(name);
  if (const auto wrong = regular_file_read(path, file_trust::owner_only, 1, content)) {
    if (wrong->error == ENOENT) return {};
    return {.how = reading::verdict::unreadable, .error = path + " " + wrong->text};
  }
  reading out{.how = reading::verdict::unreadable, .error = path + " holds no record"};
  if (content.size() < HEAD_BYTES) return out;
  const std::string_view head = std::string_view(content).substr(0, HEAD_BYTES);
  const std::string_view rest = std::string_view(content).substr(HEAD_BYTES);
  std::optional<secret> text;
  if (head.starts_with(PLAIN) && encryption_ == store_encryption::none) text = secret(std::string(rest));
  if (head.starts_with(SEALED)) {
    store_cipher::key_id id;
    std::copy_n(head.begin() + SEALED.size(), id.size(), id.begin());
    const auto cipher = cipher_for(id);
    if (!cipher) out.error = path + " is sealed with another key than the one in force";
    if (cipher) text = cipher->open(rest, std::string(head) + name);
    if (cipher && !text) out.error = path + " was changed by somebody, or belongs to another account";
  }
  if (text) out.record = record_read(text->text());
  if (out.record) out.how = reading::verdict::found;
  if (out.record) out.error.clear();
  wipe(content);
  return out;
}

token_store::place token_store::take_place(const std::string& name) const {
  place taken;
  taken.path_ = path_of(name) + ".new";
  taken.file_ =
      descriptor(::open(taken.path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!taken.file_ || !store_folder_give(folder_, taken.file_.get())) {
    taken.error_ = store_failure(taken.path_, "cannot be opened");
    return taken;
  }
  errno = posix_fallocate(taken.file_.get(), 0, RECORD_BYTES_MAX);
  if (errno == 0) return taken;
  taken.error_ = store_failure(taken.path_, "there is no room");
  (void)unlink(taken.path_.c_str());
  return taken;
}

store_error token_store::write(const std::string& name, const token_record& record, place into) const {
  if (!into.error_.empty()) return into.error_;
  const secret text = record_write(record);
  std::string content;
  if (encryption_ == store_encryption::none) {
    content = head_of(false, {}, record.generation) + text.text();
  } else {
    const auto cipher = cipher_in_force();
    const std::string head = head_of(true, cipher->id(), record.generation);
    const std::string sealed = cipher->seal(text.text(), head + name);
    if (sealed.empty()) return "OpenSSL cannot seal a record";
    content = head + sealed;
  }
  if (content.size() > static_cast<std::size_t>(RECORD_BYTES_MAX)) return "the record is too long";
  const int file = into.file_.get();
  const auto length = static_cast<off_t>(content.size());
  const store_error error = file_write_whole(file, content) ? "" : std::strerror(errno);
  wipe(content);
  if (!error.empty()) return into.path_ + ": cannot be written: " + error;
  if (ftruncate(file, length) != 0 || fsync(file) != 0) return store_failure(into.path_, "cannot be written");
  if (rename(into.path_.c_str(), path_of(name).c_str()) != 0) return store_failure(into.path_, "cannot be renamed");
  if (!folder_sync(folder_)) return store_failure(folder_, "cannot be written");
  return {};
}

store_error token_store::write(const std::string& name, const token_record& record) const {
  return write(name, record, take_place(name));
}

store_error token_store::remove(const std::string& name) const {
  if (unlink(path_of(name).c_str()) != 0 && errno != ENOENT) return store_failure(path_of(name), "cannot be removed");
  (void)unlink((path_of(name) + ".new").c_str());
  return folder_sync(folder_) ? "" : store_failure(folder_, "cannot be written");
}

std::vector<std::string> token_store::names() const {
  const owner<DIR, closedir> folder(opendir(folder_.c_str()));
  std::vector<std::string> found;
  if (!folder) return found;
  while (const dirent* const entry = readdir(folder.get()))
    if (auto name = record_account(static_cast<const char*>(entry->d_name))) found.push_back(std::move(*name));
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace tarvex::server
