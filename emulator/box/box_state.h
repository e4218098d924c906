#pragma once

#include "base/settings.h"
#include "box/app_list.h"
#include "box/download_links.h"
#include "box/event_log.h"
#include "box/recent_stores.h"
#include "box/reservations.h"
#include "box/session_digests.h"
#include "store/content_store.h"
#include "store/database.h"
#include "store/item_store.h"
#include "store/metadata_store.h"
#include "store/record_store.h"
#include "store/session_store.h"
#include "store/single_use_store.h"
#include "store/token_store.h"
#include "store/user_store.h"
#include "store/version_store.h"
#include "traffic/chance.h"
#include "traffic/fault_list.h"
#include "traffic/journal.h"
#include "traffic/rate_limiter.h"

#include <map>
#include <mutex>
#include <string>

namespace tarvex::emulator {

/// The whole local Box: what is kept on disk and what is kept in memory. Lives as long as the server; usable from all
/// threads, the stores inside a transaction on `data`.
struct box_state {
  /// Opens the state in `directory`, which is made when it is missing. The journal's file and `print` as in `journal`.
  /// Throws database_failure, std::system_error, std::runtime_error.
  box_state(const std::string& directory, settings initial, const std::string& journal_file, bool print);

  /// The settings as they are now, and new ones for the requests to come.
  [[nodiscard]] settings current_settings() const;
  void change_settings(settings changed);

  /// Makes a user of that name with a root folder, where there is none, and gives it a token that never expires (an
  /// empty one: none).
  user open_account(const std::string& name, const std::string& token);

  /// A user of that name with a root folder, made where there is none. Inside a transaction.
  user ensure_account(const std::string& name, std::int64_t now);

  /// Removes all items, sessions, contents, faults and the journal; users, their roots and tokens stay.
  void reset();

  database data;
  content_store contents;
  item_store items{data};
  version_store versions{data};
  metadata_store metadata{data};
  record_store records{data};
  user_store users{data};
  token_store tokens{data};
  single_use_store single_uses{data};
  session_store sessions{data};
  journal requests;
  fault_list faults;
  download_links downloads;
  session_digests digests;
  rate_limiter limiter;
  reservations reserved;
  event_log events;
  recent_stores recent;
  chance_counter chances;
  app_list apps;
  std::map<std::string, std::string> passwords;  // by user's name; complete before the first request

 private:
  mutable std::mutex mutex_;  // guards settings_
  settings settings_;
};

}  // namespace tarvex::emulator
