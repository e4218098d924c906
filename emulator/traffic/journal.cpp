#include "traffic/journal.h"

#include "base/digest.h"
#include "base/times.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_ENTRIES = 200000;

/// Equal secrets stay equal, so that a test can tell which token came; none can be got back.
std::string masked(std::string_view secret) {
  return "sha256:" + hex(sha256_of(secret)).substr(0, 16);
}

std::string header_masked(const std::string& name, const std::string& value) {
  if (!equal_ignoring_case(name, "Authorization")) return value;
  const auto space = value.find(' ');
  if (space == std::string::npos) return masked(value);
  return value.substr(0, space + 1) + masked(std::string_view(value).substr(space + 1));
}

constexpr std::string_view SECRETS[] = {"access_token", "token",     "client_secret", "refresh_token",
                                        "code",         "assertion", "password"};

bool is_secret(std::string_view parameter) {
  return std::find(std::begin(SECRETS), std::end(SECRETS), parameter) != std::end(SECRETS);
}

json_ptr pairs_json(const pair_list& pairs) {
  json_ptr list(json_array());
  for (const auto& [name, value] : pairs) {
    json_ptr pair(json_array());
    json_add(pair.get(), json_string_of(name));
    json_add(pair.get(), json_string_of(value));
    json_add(list.get(), std::move(pair));
  }
  return list;
}

json_ptr entry_json(const journal_entry& entry) {
  json_ptr line(json_object());
  json_put(line.get(), "number", entry.number);
  json_put(line.get(), "time_ms", entry.time_us / 1000);
  json_put(line.get(), "time_us", entry.time_us);
  json_put(line.get(), "method", entry.method);
  json_put(line.get(), "path", entry.path);
  json_put(line.get(), "raw_query", entry.raw_query);
  json_put(line.get(), "query", pairs_json(entry.query));
  json_put(line.get(), "headers", pairs_json(entry.headers));
  json_put(line.get(), "body_length", static_cast<std::int64_t>(entry.body_bytes));
  json_put(line.get(), "body", entry.body);
  if (!entry.grant.empty()) json_put(line.get(), "grant", entry.grant);
  json_put(line.get(), "status", entry.status);
  json_put(line.get(), "fault", entry.fault);
  return line;
}

}  // namespace

journal::journal(const std::string& file, bool print) : print_(print) {
  if (file.empty()) return;
  file_ = descriptor(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (!file_) throw std::runtime_error("cannot write the journal " + file + ": " + std::strerror(errno));
}

journal_entry_ptr journal::begin(const request& in) {
  auto entry = std::make_shared<journal_entry>();
  entry->time_us = time_now_us();
  entry->method = in.method;
  entry->path = in.target.substr(0, in.target.find('?'));
  entry->raw_query = in.raw_query;
  for (const auto& [name, value] : in.query) {
    // The raw query shows what was sent letter for letter, so there is no masking a part of it.
    if (is_secret(name)) entry->raw_query = "(holds a secret)";
    entry->query.emplace_back(name, is_secret(name) ? masked(value) : value);
  }
  for (const auto& [name, value] : in.headers) entry->headers.emplace_back(name, header_masked(name, value));
  const std::lock_guard lock(mutex_);
  entry->number = next_++;
  return entry;
}

void journal::finish(const journal_entry_ptr& entry) {
  // Made before the lock: to write JSON for one request must not hold up the others.
  const std::string line = file_ ? json_text(entry_json(*entry).get()) + "\n" : "";
  const std::lock_guard lock(mutex_);
  // A slow request ends after ones that came later; the journal stands in the order in which they came.
  const auto place = std::upper_bound(finished_.begin(), finished_.end(), entry,
                                      [](const auto& a, const auto& b) { return a->number < b->number; });
  finished_.insert(place, entry);
  if (finished_.size() > MAX_ENTRIES) finished_.pop_front();
  if (file_ && ::write(file_.get(), line.data(), line.size()) < 0) {
    std::fprintf(stderr, "the journal cannot be written: %s\n", std::strerror(errno));
  }
  if (print_) {
    std::fprintf(stderr, "%s %s %s%s%s %u\n", time_text_utc(entry->time_us / 1000000).c_str(), entry->method.c_str(),
                 entry->path.c_str(), entry->raw_query.empty() ? "" : "?", entry->raw_query.c_str(), entry->status);
  }
}

json_ptr journal::since(std::int64_t number) const {
  const std::lock_guard lock(mutex_);
  json_ptr list(json_array());
  for (const journal_entry_ptr& entry : finished_) {
    if (entry->number > number) json_add(list.get(), entry_json(*entry));
  }
  return list;
}

std::int64_t journal::last_number() const {
  const std::lock_guard lock(mutex_);
  return next_ - 1;
}

void journal::clear() {
  const std::lock_guard lock(mutex_);
  finished_.clear();
}

}  // namespace tarvex::emulator
