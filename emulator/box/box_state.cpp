#include "box/box_state.h"

#include "base/times.h"

#include <filesystem>

namespace tarvex::emulator {
namespace {

std::string made(const std::string& directory) {
  std::filesystem::create_directories(directory);
  return directory;
}

/// A seed that is drawn stands among the settings like one that was given, so that a run can be repeated.
settings seeded(settings values) {
  if (values.seed == 0) values.seed = chance_seed();
  return values;
}

}  // namespace

box_state::box_state(const std::string& directory, settings initial, const std::string& journal_file, bool print)
    : data(made(directory) + "/box.sqlite"),
      contents(directory + "/content"),
      requests(journal_file, print),
      settings_(seeded(std::move(initial))) {}

settings box_state::current_settings() const {
  const std::lock_guard lock(mutex_);
  return settings_;
}

void box_state::change_settings(settings changed) {
  const std::lock_guard lock(mutex_);
  settings_ = seeded(std::move(changed));
}

user box_state::open_account(const std::string& name, const std::string& token) {
  transaction hold(data);
  user account = ensure_account(name, time_now());
  if (!token.empty()) tokens.add_fixed(token, account.id);
  hold.commit();
  return account;
}

user box_state::ensure_account(const std::string& name, std::int64_t now) {
  bool created = false;
  user account = users.ensure(name, now, created);
  if (created) items.create_root(account.id, now);
  return account;
}

void box_state::reset() {
  faults.clear();
  requests.clear();
  reserved.clear();
  recent.clear();
  events.clear();
  chances.restart();
  transaction hold(data);
  for (const char* table : {"versions", "trashed_versions", "instances", "sessions", "parts"})
    data.run(std::string("DELETE FROM ") + table);
  data.run("DELETE FROM records WHERE kind <> 'scoped_token'");  // tokens stay
  // The roots stay: only they have no parent.
  data.run("DELETE FROM items WHERE parent <> -1");
  data.run("UPDATE items SET size = 0");
  data.run("UPDATE users SET used = 0");
  hold.commit();
  contents.remove_everything();
}

}  // namespace tarvex::emulator
