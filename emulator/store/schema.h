#pragma once

namespace tarvex::emulator {

/// The tables, made where they do not exist. Times are seconds since 1970, sizes are bytes.
///
/// items: one row for each folder (type 0), file (1) and web link (2); a user's root is the folder 0 without a parent.
/// `trashed` is 1 for what was deleted itself and 2 for what went with a folder above it. A folder's size is kept as
/// the sum of what is in it.
///
/// fixed_tokens: those of the command line; token_pairs: those of the token address; tokens and codes stand there as
/// digests. token_key: what issued tokens are derived from. tokens: as earlier versions had them, which knew no pairs.
/// metadata: the same, which knew one template.
inline constexpr const char* SCHEMA = R"(
PRAGMA busy_timeout = 10000;
PRAGMA journal_mode = WAL;
PRAGMA synchronous = NORMAL;
CREATE TABLE IF NOT EXISTS counters(name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS users(
  id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, created_at INTEGER NOT NULL, used INTEGER NOT NULL DEFAULT 0);
DROP TABLE IF EXISTS tokens;
CREATE TABLE IF NOT EXISTS fixed_tokens(digest TEXT PRIMARY KEY, user INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS token_pairs(
  id INTEGER PRIMARY KEY, sign_in INTEGER NOT NULL, client TEXT NOT NULL, user INTEGER NOT NULL,
  access TEXT NOT NULL UNIQUE, refresh TEXT UNIQUE, access_expires_at INTEGER NOT NULL,
  refresh_expires_at INTEGER NOT NULL, successor INTEGER NOT NULL DEFAULT 0, used INTEGER NOT NULL DEFAULT 0,
  state INTEGER NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS token_pairs_of_sign_in ON token_pairs(sign_in);
CREATE TABLE IF NOT EXISTS token_key(id INTEGER PRIMARY KEY CHECK(id = 1), value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS codes(
  digest TEXT PRIMARY KEY, client TEXT NOT NULL, redirect TEXT NOT NULL, user INTEGER NOT NULL,
  expires_at INTEGER NOT NULL, spent INTEGER NOT NULL DEFAULT 0) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS assertions(
  client TEXT NOT NULL, jti TEXT NOT NULL, expires_at INTEGER NOT NULL, PRIMARY KEY(client, jti)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS items(
  owner INTEGER NOT NULL, type INTEGER NOT NULL, id INTEGER NOT NULL, parent INTEGER NOT NULL, name TEXT NOT NULL,
  folded TEXT NOT NULL, size INTEGER NOT NULL DEFAULT 0, version INTEGER NOT NULL DEFAULT 0,
  sha1 TEXT NOT NULL DEFAULT '', etag INTEGER NOT NULL DEFAULT 0, created_at INTEGER NOT NULL,
  modified_at INTEGER NOT NULL, content_created_at INTEGER NOT NULL, content_modified_at INTEGER NOT NULL,
  description TEXT NOT NULL DEFAULT '', url TEXT NOT NULL DEFAULT '', trashed INTEGER NOT NULL DEFAULT 0,
  trashed_at INTEGER NOT NULL DEFAULT 0, PRIMARY KEY(owner, type, id)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS items_listed ON items(owner, parent, trashed, type, folded, id);
CREATE INDEX IF NOT EXISTS items_named ON items(owner, parent, folded, trashed);
CREATE TABLE IF NOT EXISTS versions(
  id INTEGER PRIMARY KEY, file INTEGER NOT NULL, size INTEGER NOT NULL, sha1 TEXT NOT NULL,
  content TEXT NOT NULL, created_at INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS trashed_versions(id INTEGER PRIMARY KEY, trashed_at INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS versions_of_file ON versions(file);
CREATE INDEX IF NOT EXISTS versions_of_content ON versions(content);
CREATE TABLE IF NOT EXISTS records(
  id INTEGER PRIMARY KEY, kind TEXT NOT NULL, owner INTEGER NOT NULL, subject TEXT NOT NULL, value TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS records_of_subject ON records(kind, subject);
CREATE INDEX IF NOT EXISTS records_on_item ON records(subject);
CREATE INDEX IF NOT EXISTS items_by_id ON items(type, id);
CREATE TABLE IF NOT EXISTS instances(
  type INTEGER NOT NULL, item INTEGER NOT NULL, place TEXT NOT NULL, id TEXT NOT NULL, version INTEGER NOT NULL,
  value TEXT NOT NULL, PRIMARY KEY(type, item, place)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS metadata(
  type INTEGER NOT NULL, item INTEGER NOT NULL, id TEXT NOT NULL, version INTEGER NOT NULL, value TEXT NOT NULL,
  PRIMARY KEY(type, item)) WITHOUT ROWID;
INSERT INTO instances SELECT type, item, 'global.properties', id, version, value FROM metadata;
DELETE FROM metadata;
CREATE TABLE IF NOT EXISTS sessions(
  id TEXT PRIMARY KEY, owner INTEGER NOT NULL, folder INTEGER NOT NULL, file INTEGER NOT NULL, name TEXT NOT NULL,
  size INTEGER NOT NULL, part_size INTEGER NOT NULL, expires_at INTEGER NOT NULL, state TEXT NOT NULL,
  commits INTEGER NOT NULL DEFAULT 0, first_commit_ms INTEGER NOT NULL DEFAULT 0) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS parts(
  session TEXT NOT NULL, start INTEGER NOT NULL, size INTEGER NOT NULL, id TEXT NOT NULL, sha1 TEXT NOT NULL,
  PRIMARY KEY(session, start)) WITHOUT ROWID;
)";

}  // namespace tarvex::emulator
