#include "broker/token_store.h"

#include "base/number.h"
#include "base/regular_file.h"
#include "base/text.h"
#include "config/secret_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>
#include <string_view>
#include <thread>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::string_view SUFFIX = ".record";
constexpr std::string_view SEALED = "TVXR1", PLAIN = "TVXR0";
constexpr std::size_t GENERATION_BYTES = 8;
constexpr std::size_t HEAD_BYTES = SEALED.size() + store_cipher::KEY_ID_BYTES + GENERATION_BYTES;
constexpr off_t RECORD_BYTES_MAX = 32 * 1024;
constexpr const char* CIPHER_FAILURE = "the key cannot be prepared by OpenSSL";
constexpr std::chrono::seconds REKEY_LOCK_LIMIT{120};  ///< a renewal may be on its way

store_error failure(const std::string& path, const char* what) {
  return path + ": " + what + ": " + std::strerror(errno);
}

/// Every account name as one file name, and no two as the same: bytes that are not plain are %XX.
std::string file_name(std::string_view account) {
  constexpr std::string_view PLAIN_BYTES = "-_@+";
  std::string name;
  for (const char c : account) {
    if (is_alphanumeric(c) || PLAIN_BYTES.find(c) != std::string_view::npos) {
      name.push_back(c);
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    name.push_back('%');
    append_hex(name, {&byte, 1});
  }
  return name;
}

std::optional<std::string> account_name(std::string_view file) {
  if (!file.ends_with(SUFFIX)) return std::nullopt;
  file.remove_suffix(SUFFIX.size());
  std::string name;
  for (std::size_t i = 0; i < file.size(); ++i) {
    if (file[i] != '%') {
      name.push_back(file[i]);
      continue;
    }
    const auto byte = parse_number<std::uint8_t>(file.substr(i + 1, 2), 16);
    if (!byte || i + 2 >= file.size()) return std::nullopt;
    name.push_back(static_cast<char>(*byte));
    i += 2;
  }
  return name;
}

std::string head_of(bool sealed, const store_cipher::key_id& key, std::uint64_t generation) {
  std::string head(sealed ? SEALED : PLAIN);
  head.append(reinterpret_cast<const char*>(key.data()), key.size());
  for (std::size_t i = 0; i < GENERATION_BYTES; ++i)
    head.push_back(static_cast<char>(generation >> (8 * (GENERATION_BYTES - 1 - i)) & 0xffU));
  return head;
}

/// Files of a root who works for the broker's user are that user's.
bool give_to_owner_of(const std::string& folder, int file) {
  struct stat status = {};
  if (geteuid() != 0) return true;
  return stat(folder.c_str(), &status) == 0 && fchown(file, status.st_uid, status.st_gid) == 0;
}

store_error make_folder(const std::string& folder, const std::string& user) {
  if (mkdir(folder.c_str(), S_IRWXU) != 0) return errno == EEXIST ? "" : failure(folder, "cannot be made");
  const passwd* const entry = geteuid() == 0 ? getpwnam(user.c_str()) : nullptr;
  if (entry != nullptr && chown(folder.c_str(), entry->pw_uid, entry->pw_gid) != 0)
    return failure(folder, "cannot be given to the broker's user");
  return {};
}

store_error check_folder(const std::string& folder) {
  struct stat status = {};
  if (stat(folder.c_str(), &status) != 0) return failure(folder, "cannot be looked at");
  if (!S_ISDIR(status.st_mode)) return folder + " is no folder";
  if (geteuid() != 0 && status.st_uid != geteuid()) return folder + " belongs to another user";
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0 && chmod(folder.c_str(), S_IRWXU) != 0)
    return failure(folder, "may be entered by others, and cannot be closed to them");
  return {};
}

store_error write_all(int file, std::string_view bytes) {
  for (off_t at = 0; at < static_cast<off_t>(bytes.size());) {
    const ssize_t count = pwrite(file, bytes.data() + at, bytes.size() - static_cast<std::size_t>(at), at);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::strerror(errno);
    at += count;
  }
  return {};
}

/// The name of a file is on the disk once its folder is.
bool sync_folder(const std::string& folder) {
  const descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened && fsync(opened.get()) == 0;
}

}  // namespace

store_error token_store::open(const configuration& config) {
  folder_ = config.broker_directory;
  encryption_ = config.broker_encryption;
  key_file_ = config.broker_key_file;
  read_key_ = [config](secret& key) { return store_key_read(config, key); };
  if (store_error error = make_folder(folder_, config.broker_user); !error.empty()) return error;
  if (store_error error = check_folder(folder_); !error.empty()) return error;
  if (encryption_ == store_encryption::none) return {};
  const std::lock_guard hold(mutex_);
  return load_key();
}

/// The mutex is held.
store_error token_store::load_key() const {
  secret key;
  if (store_error error = read_key_(key); !error.empty()) return error;
  cipher_ = store_cipher::make(key.text());
  return cipher_ ? "" : CIPHER_FAILURE;
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
  return folder_ + "/" + file_name(name) + std::string(SUFFIX);
}

token_store::lock token_store::lock_account(const std::string& name, std::chrono::milliseconds limit) const {
  constexpr std::chrono::milliseconds LOOK{20};
  const std::string path = folder_ + "/" + file_name(name) + ".lock";
  lock held(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!held || !give_to_owner_of(folder_, held.get())) return lock();
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
  if (!taken.file_ || !give_to_owner_of(folder_, taken.file_.get())) {
    taken.error_ = failure(taken.path_, "cannot be opened");
    return taken;
  }
  errno = posix_fallocate(taken.file_.get(), 0, RECORD_BYTES_MAX);
  if (errno == 0) return taken;
  taken.error_ = failure(taken.path_, "there is no room");
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
  const store_error error = write_all(file, content);
  wipe(content);
  if (!error.empty()) return into.path_ + ": cannot be written: " + error;
  if (ftruncate(file, length) != 0 || fsync(file) != 0) return failure(into.path_, "cannot be written");
  if (rename(into.path_.c_str(), path_of(name).c_str()) != 0) return failure(into.path_, "cannot be renamed");
  if (!sync_folder(folder_)) return failure(folder_, "cannot be written");
  return {};
}

store_error token_store::write(const std::string& name, const token_record& record) const {
  return write(name, record, take_place(name));
}

store_error token_store::remove(const std::string& name) const {
  if (unlink(path_of(name).c_str()) != 0 && errno != ENOENT) return failure(path_of(name), "cannot be removed");
  (void)unlink((path_of(name) + ".new").c_str());
  return sync_folder(folder_) ? "" : failure(folder_, "cannot be written");
}

std::vector<std::string> token_store::names() const {
  const owner<DIR, closedir> folder(opendir(folder_.c_str()));
  std::vector<std::string> found;
  if (!folder) return found;
  while (const dirent* const entry = readdir(folder.get()))
    if (auto name = account_name(static_cast<const char*>(entry->d_name))) found.push_back(std::move(*name));
  std::sort(found.begin(), found.end());
  return found;
}

store_error token_store::rekey(const std::string& new_key_file) {
  if (encryption_ == store_encryption::none) return "the records are not encrypted: set encryption in [broker] first";
  secret key;
  if (store_error error = store_key_file_read(new_key_file, key); !error.empty()) return error;
  std::shared_ptr<const store_cipher> next = store_cipher::make(key.text());
  if (!next) return CIPHER_FAILURE;
  {
    const std::lock_guard hold(mutex_);
    next_cipher_ = std::move(next);
  }
  for (const std::string& name : names()) {
    const lock held = lock_account(name, REKEY_LOCK_LIMIT);
    if (!held) return "the record of " + name + " is in use; try again";
    const reading old = read(name);
    if (old.how == reading::verdict::missing) continue;
    if (!old.record) return old.error;
    if (store_error error = write(name, *old.record); !error.empty()) return error;
  }
  return replace_key_file(key);
}

/// A key that systemd holds cannot be replaced from here.
store_error token_store::replace_key_file(const secret& key) const {
  struct stat status = {};
  if (key_file_.empty()) return {};
  if (stat(key_file_.c_str(), &status) != 0) return failure(key_file_, "cannot be looked at");
  const std::string path = key_file_ + ".new";
  const descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!file || fchmod(file.get(), status.st_mode & 07777U) != 0) return failure(path, "cannot be made");
  if (geteuid() == 0 && fchown(file.get(), status.st_uid, status.st_gid) != 0)
    return failure(path, "cannot be given to the owner of the key in force");
  if (store_error error = write_all(file.get(), key.text()); !error.empty()) return path + ": " + error;
  if (fsync(file.get()) != 0 || rename(path.c_str(), key_file_.c_str()) != 0)
    return failure(path, "cannot be put in the place of the key in force");
  return sync_folder(std::filesystem::path(key_file_).parent_path().string())
             ? ""
             : failure(key_file_, "is not on the disk");
}

}  // namespace tarvex::server
