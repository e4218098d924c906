#include "store/single_use_store.h"

#include "base/digest.h"
#include "base/text.h"

namespace tarvex::emulator {
namespace {

std::string code_digest(std::string_view code) {
  return hex(sha256_of(code));
}

}  // namespace

void single_use_store::add_code(std::string_view code, const authorisation_code& about) {
  on_.run("INSERT INTO codes(digest, client, redirect, user, expires_at) VALUES(?, ?, ?, ?, ?)", code_digest(code),
          about.client, about.redirect, about.user, about.expires_at);
}

std::optional<authorisation_code> single_use_store::find_code(std::string_view code) {
  cursor rows(on_, "SELECT client, redirect, user, expires_at, spent FROM codes WHERE digest = ?");
  rows.bind(code_digest(code));
  if (!rows.next()) return std::nullopt;
  return authorisation_code{.client = rows.text(0),
                            .redirect = rows.text(1),
                            .user = rows.integer(2),
                            .expires_at = rows.integer(3),
                            .spent = rows.integer(4) != 0};
}

void single_use_store::spend_code(std::string_view code) {
  on_.run("UPDATE codes SET spent = 1 WHERE digest = ?", code_digest(code));
}

bool single_use_store::spend_assertion(std::string_view client, std::string_view jti, std::int64_t expires_at,
                                       std::int64_t now) {
  // One that has expired is refused for that alone.
  on_.run("DELETE FROM assertions WHERE expires_at < ?", now);
  return on_.number("INSERT OR IGNORE INTO assertions(client, jti, expires_at) VALUES(?, ?, ?) RETURNING 1", 0, client,
                    jti, expires_at) == 1;
}

}  // namespace tarvex::emulator
