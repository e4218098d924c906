#include "broker/token_store.h"
#include "config/file_replace.h"
#include "config/secret_file.h"

#include <utility>

namespace tarvex::server {

namespace {

constexpr std::chrono::seconds REKEY_LOCK_LIMIT{120};  ///< a renewal may be on its way

}  // namespace

store_error token_store::rekey(const std::string& new_key_file) {
  if (encryption_ == store_encryption::none) return "the records are not encrypted: set encryption in [broker] first";
  secret key;
  if (store_error error = store_key_file_read(new_key_file, key); !error.empty()) return error;
  std::shared_ptr<const store_cipher> next = store_cipher::make(key.text());
  if (!next) return "the key cannot be prepared by OpenSSL";
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

/// A key that systemd holds cannot be replaced from here. Of a key file's text one newline at the end is none of the
/// key.
store_error token_store::replace_key_file(const secret& key) const {
  if (key_file_.empty()) return {};
  const secret text(key.text() + (key.text().ends_with('\n') ? "\n" : ""));
  return file_replace(key_file_, text.text());
}

}  // namespace tarvex::server
