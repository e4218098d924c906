#include "broker/renewal.h"

#include "base/wall_clock.h"

#include <poll.h>

#include <algorithm>
#include <utility>

namespace tarvex::server {

namespace {

using verdict = renewal_answer::verdict;
using std::chrono::milliseconds;

constexpr milliseconds LOCK_LIMIT{120'000};

/// One renewal on its way, the account's lock held.
class renewal {
 public:
  renewal(const renewal_setup& setup, const std::string& name, token_record record)
      : setup_(setup), name_(name), record_(std::move(record)) {}

  renewal_answer run();

 private:
  void step(const char* what) const {
    if (setup_.at_step) setup_.at_step(what);
  }
  /// \return false when the program is to end.
  bool pause(milliseconds time) const;
  token_answer ask_patiently() const;
  renewal_answer take(token_answer got, token_store::place into);
  renewal_answer give_up(const token_answer& got);
  renewal_answer failed(verdict how, std::string reason) { return {how, std::nullopt, std::move(reason)}; }

  const renewal_setup& setup_;
  const std::string& name_;
  token_record record_;
};

bool renewal::pause(milliseconds time) const {
  pollfd awaited = {setup_.cancel_fd, POLLIN, 0};
  return poll(&awaited, 1, static_cast<int>(time.count())) == 0;
}

/// What is lost, late or of no use is asked for again with the same refresh token: Box gives the same pair again until
/// that has been used, which nobody can before it is on the disk here.
token_answer renewal::ask_patiently() const {
  const auto end = std::chrono::steady_clock::now() + setup_.patience;
  milliseconds wait = setup_.first_pause;
  for (;;) {
    step("before asking");
    token_answer got = renewal_ask(setup_, record_);
    step("answered");
    if (got.how != token_answer::verdict::again) return got;
    const milliseconds asked = std::chrono::seconds(got.retry_after_s.value_or(0));
    const milliseconds next = std::max(wait, asked);
    if (std::chrono::steady_clock::now() + next > end || !pause(next)) return got;
    wait *= 2;
  }
}

renewal_answer renewal::run() {
  // An attempt of before, whose answer nobody knows, is made again as it was: with the same refresh token.
  if (!record_.attempt_open) {
    record_.attempt_open = true;
    step("before the note");
    if (store_error error = setup_.store.write(name_, record_); !error.empty())
      return failed(verdict::unavailable, "the broker's store cannot be written: " + error);
  }
  step("noted");
  token_store::place into = setup_.store.take_place(name_);
  if (!into.error().empty())
    return failed(verdict::unavailable, "the broker's store cannot be written: " + into.error());
  token_answer got = ask_patiently();
  if (got.how == token_answer::verdict::granted) return take(std::move(got), std::move(into));
  return give_up(got);
}

renewal_answer renewal::take(token_answer got, token_store::place into) {
  token_record fresh = std::move(record_);
  fresh.previous = std::move(fresh.current);
  fresh.current = {std::move(got.access_token), std::move(got.refresh_token), got.expires_at};
  ++fresh.generation;
  fresh.attempt_open = false;
  fresh.sign_in_needed = false;
  fresh.last_error.clear();
  fresh.renewed_at = wall_clock();
  step("before writing");
  if (store_error error = setup_.store.write(name_, fresh, std::move(into)); !error.empty())
    return failed(verdict::unavailable, "the broker's store cannot be written: " + error);
  step("written");
  return {.how = verdict::good, .record = std::move(fresh), .renewed = true};
}

/// What Box refuses for good is final, unless somebody has put another pair there meanwhile.
renewal_answer renewal::give_up(const token_answer& got) {
  token_store::reading now = setup_.store.read(name_);
  if (!now.record) return failed(verdict::unavailable, now.error.empty() ? "the account is signed out" : now.error);
  if (now.record->generation != record_.generation) return {verdict::good, std::move(now.record), {}};
  const bool final = got.how == token_answer::verdict::grant_refused;
  if (got.how == token_answer::verdict::again) return failed(verdict::unavailable, got.reason);
  record_.attempt_open = false;
  record_.sign_in_needed = final;
  record_.last_error = got.reason;
  if (store_error error = setup_.store.write(name_, record_); !error.empty())
    return failed(verdict::unavailable, "the broker's store cannot be written: " + error);
  return failed(final ? verdict::sign_in_needed : verdict::refused, got.reason);
}

form_pairs grant_form(const token_record& record) {
  if (record.grant == grant_kind::ccg)
    return {{"grant_type", "client_credentials"}, {"box_subject_type", "user"}, {"box_subject_id", record.box_user}};
  return {{"grant_type", "refresh_token"}, {"refresh_token", record.current.refresh.text()}};
}

token_answer ask_with_assertion(const renewal_setup& setup, const token_record& record, std::chrono::sys_seconds now) {
  const secret assertion = jwt_assertion(*record.app, setup.endpoint.token_url, record.box_user, now);
  if (assertion.text().empty())
    return {.how = token_answer::verdict::app_refused, .reason = "no assertion can be signed with the app's key"};
  form_pairs form = {{"grant_type", "urn:ietf:params:oauth:grant-type:jwt-bearer"}, {"assertion", assertion.text()}};
  return token_ask(setup.endpoint, record.app->app, std::move(form), false, setup.cancel_fd);
}

/// The record where nothing needs to be asked for.
std::optional<renewal_answer> good_already(token_record& record, std::chrono::seconds least, std::uint64_t refused) {
  const bool lives = token_lives(record.current, wall_clock(), least) && record.generation != refused;
  if (lives) return renewal_answer{verdict::good, std::move(record), {}};
  // Nothing but a person can help there; of the other grants Box may think better.
  if (record.sign_in_needed && record.grant == grant_kind::box)
    return renewal_answer{verdict::sign_in_needed, std::nullopt, record.last_error};
  return std::nullopt;
}

}  // namespace

token_answer renewal_ask(const renewal_setup& setup, const token_record& record) {
  if (record.grant == grant_kind::jwt) {
    token_answer got = ask_with_assertion(setup, record, wall_clock());
    if (got.clock_refused && got.date) got = ask_with_assertion(setup, record, *got.date);
    return got;
  }
  oauth_app app;
  if (std::string error = setup.app(app); !error.empty())
    return {.how = token_answer::verdict::app_refused, .reason = std::move(error)};
  return token_ask(setup.endpoint, app, grant_form(record), record.grant == grant_kind::box, setup.cancel_fd);
}

renewal_answer renew_account(const renewal_setup& setup, const std::string& name, std::chrono::seconds least,
                             std::uint64_t refused) {
  const token_store::lock held = setup.store.lock_account(name, LOCK_LIMIT);
  if (!held) return {verdict::unavailable, std::nullopt, "the account's record is in use"};
  token_store::reading found = setup.store.read(name);
  if (found.how == token_store::reading::verdict::missing)
    return {verdict::sign_in_needed, std::nullopt, "the account is not signed in"};
  if (!found.record) return {verdict::unavailable, std::nullopt, found.error};
  if (auto good = good_already(*found.record, least, refused)) return std::move(*good);
  renewal_answer answer = renewal(setup, name, std::move(*found.record)).run();
  // A pair that Box had given before, to an attempt whose answer was lost long ago, may be over by now.
  if (answer.how == verdict::good && !token_lives(answer.record->current, wall_clock(), std::chrono::seconds(1)))
    answer = renewal(setup, name, std::move(*answer.record)).run();
  return answer;
}

}  // namespace tarvex::server
