#include "base/number.h"
#include "base/text.h"
#include "command/checksum_names.h"
#include "command/extended.h"
#include "command/handler.h"
#include "command/table.h"
#include "ftp/facts.h"
#include "ftp/listing.h"
#include "session/session.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>

namespace tarvex::server {

namespace {

void opts_mlst(session& client, std::string_view names) {
  client.settings.mlst_facts = facts_parse(names);
  const std::string chosen = facts_chosen(client.settings.mlst_facts);
  client.reply(200, chosen.empty() ? "MLST OPTS" : "MLST OPTS " + chosen);
}

void opts_utf8(session& client, std::string_view value) {
  if (!value.empty() && !same_word(value, "ON")) return client.reply(504, "UTF8 is always on.");
  client.reply(200, "UTF8 is on.");
}

/// Tells the algorithm of HASH, or sets it.
void opts_hash(session& client, std::string_view algorithm) {
  std::string& chosen = client.settings.hash_algorithm;
  if (!algorithm.empty()) {
    const std::string known = hash_algorithm(algorithm);
    if (known.empty()) return client.reply(501, "Unknown algorithm; known are " + hashes_starred({}) + ".");
    chosen = known;
  }
  client.reply(200, hash_name(chosen));
}

/// The lines of FEAT, which name all that works beyond RFC 959.
std::vector<std::string> features(const session& client) {
  std::vector<std::string> lines = {
      "CLNT",        "EPRT", "EPSV", "HOST", "LANG EN*", "MDTM", "MLST " + facts_starred(client.settings.mlst_facts),
      "REST STREAM", "SIZE", "TVFS", "UTF8"};
  if (client.tls)
    for (const char* line : {"AUTH TLS", "PBSZ", "PROT"}) lines.emplace_back(line);
  if (!client.storage.checksums().empty()) lines.push_back("CKSUM " + client.storage.checksums());
  lines.push_back("HASH " + hashes_starred(client.settings.hash_algorithm));
  for (const char* verb : {"XCRC", "XMD5", "XSHA1", "XSHA256"}) lines.emplace_back(verb);
  for (const char* word : {"PARALLEL", "ERET", "ESTO", "SPAS", "SPOR", "DCAU"}) lines.emplace_back(word);
  return lines;
}

/// A feature without options takes none, and has then nothing to change.
void opts_other(session& client, std::string_view name, std::string_view value) {
  const std::vector<std::string> lines = features(client);
  const bool known = std::any_of(lines.begin(), lines.end(),
                                 [name](std::string_view line) { return same_word(name, take_word(line)); });
  if (!known) return client.reply(501, "OPTS takes a feature that FEAT lists, and its options.");
  client.reply(value.empty() ? 200 : 501, std::string(name) + " has no options.");
}

/// A setting of which one value, or a few, exist.
void choose(session& client, const std::string& argument, std::span<const std::string_view> known,
            std::string_view what) {
  for (const auto value : known) {
    if (same_word(argument, value)) return client.reply(200, std::string(what) + " set to " + argument + ".");
  }
  client.reply(504, std::string(what) + " " + argument + " is not offered.");
}

}  // namespace

handled command_noop(session& client, std::string) {
  client.reply(200, "OK.");
  co_return;
}
handled command_syst(session& client, std::string) {
  client.reply(215, "UNIX Type: L8");
  co_return;
}

handled command_help(session& client, std::string argument) {
  if (!argument.empty()) {
    const command_row* row = command_find(argument);
    if (!row) co_return client.reply(502, "Unknown command " + argument + ".");
    co_return client.reply(214, "Syntax: " + std::string(row->verb) + " " + std::string(row->help));
  }
  constexpr std::size_t VERBS_PER_LINE = 8;
  std::vector<std::string> lines;
  std::size_t count = 0;
  for (const auto& row : command_rows()) {
    if (count++ % VERBS_PER_LINE == 0) lines.emplace_back();
    lines.back() += std::string(row.verb) + " ";
  }
  client.reply_block(214, "Commands:", lines, "End.");
}

handled command_feat(session& client, std::string) {
  client.reply_block(211, "Extensions supported:", features(client), "End.");
  co_return;
}

handled command_opts(session& client, std::string argument) {
  std::string_view value = argument;
  const std::string_view name = take_word(value);
  if (same_word(name, "MLST")) co_return opts_mlst(client, value);
  if (same_word(name, "HASH")) co_return opts_hash(client, value);
  if (same_word(name, "RETR")) co_return opts_retr(client, value);
  if (same_word(name, "UTF8")) co_return opts_utf8(client, value);
  opts_other(client, name, value);
}

/// Data are sent byte for byte in either type: a text that changed on its way would not match its checksum.
handled command_type(session& client, std::string argument) {
  static constexpr auto KNOWN = std::to_array<std::string_view>({"A", "A N", "I", "L 8", "L8"});
  choose(client, argument, KNOWN, "Type");
  co_return;
}

handled command_stru(session& client, std::string argument) {
  static constexpr auto KNOWN = std::to_array<std::string_view>({"F"});
  choose(client, argument, KNOWN, "Structure");
  co_return;
}

/// RFC 959 section 4.1.3. The size of a record ("R n") means nothing here.
handled command_allo(session& client, std::string argument) {
  std::string_view rest = argument;
  const auto size = parse_number<std::int64_t>(take_word(rest));
  const std::string_view word = take_word(rest);
  const bool good = word.empty() || (same_word(word, "R") && parse_number<std::int64_t>(rest).value_or(-1) >= 0);
  if (!size || *size < 0 || !good) co_return client.reply(501, "ALLO takes a size in bytes, or size R size.");
  client.settings.announced_size = static_cast<std::uint64_t>(*size);
  client.reply(200, "The next store has " + std::to_string(*size) + " bytes.");
}

handled command_storattr(session& client, std::string argument) {
  constexpr std::string_view FACT = "modify=";
  std::string_view rest = argument;
  std::optional<std::time_t> time;
  if (rest.ends_with(';')) rest.remove_suffix(1);
  if (same_word(rest.substr(0, FACT.size()), FACT)) time = listing_timestamp_parse(rest.substr(FACT.size()));
  if (!time) co_return client.reply(501, "STORATTR takes modify=YYYYMMDDHHMMSS;.");
  client.settings.modification_time = *time;
  client.reply(200, "The next stored file gets this modification time.");
}

}  // namespace tarvex::server
