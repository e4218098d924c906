#include "base/text.h"
#include "command/checksum.h"
#include "command/handlers.h"
#include "command/table.h"
#include "ftp/facts.h"
#include "session/session_state.h"

#include <algorithm>
#include <array>
#include <span>

namespace tarvex::server {

namespace {

void opts_mlst(session& session, std::string_view names) {
  session.settings.mlst_facts = facts_parse(names);
  const std::string chosen = facts_chosen(session.settings.mlst_facts);
  session_reply(session, 200, chosen.empty() ? "MLST OPTS" : "MLST OPTS " + chosen);
}

/// A setting of which one value, or a few, exist.
void choose(session& session, const std::string& argument, std::span<const std::string_view> known,
            std::string_view what) {
  for (const auto value : known) {
    if (same_word(argument, value)) return session_reply(session, 200, std::string(what) + " set to " + argument + ".");
  }
  session_reply(session, 504, std::string(what) + " " + argument + " is not offered.");
}

}  // namespace

void command_noop(session& session, const std::string&) {
  session_reply(session, 200, "OK.");
}
void command_syst(session& session, const std::string&) {
  session_reply(session, 215, "UNIX Type: L8");
}

void command_help(session& session, const std::string& argument) {
  if (!argument.empty()) {
    const command_row* row = command_find(argument);
    if (!row) return session_reply(session, 502, "Unknown command " + argument + ".");
    return session_reply(session, 214, "Syntax: " + std::string(row->verb) + " " + std::string(row->help));
  }
  constexpr std::size_t VERBS_PER_LINE = 8;
  std::vector<std::string> lines;
  std::size_t count = 0;
  for (const auto& row : command_rows()) {
    if (count++ % VERBS_PER_LINE == 0) lines.emplace_back();
    lines.back() += std::string(row.verb) + " ";
  }
  session_reply_block(session, 214, "Commands:", lines, "End.");
}

void command_feat(session& session, const std::string&) {
  std::vector<std::string> lines = {
      "CLNT",        "EPRT", "EPSV", "HOST", "MDTM", "MLST " + facts_starred(session.settings.mlst_facts),
      "REST STREAM", "SIZE", "TVFS", "UTF8"};
  for (auto& line : checksum_features(session)) lines.push_back(std::move(line));
  session_reply_block(session, 211, "Extensions supported:", lines, "End.");
}

void command_opts(session& session, const std::string& argument) {
  const std::size_t blank = argument.find(' ');
  const std::string_view name = std::string_view(argument).substr(0, blank);
  const std::string_view value =
      blank == std::string::npos ? std::string_view() : std::string_view(argument).substr(blank + 1);
  if (same_word(name, "MLST")) return opts_mlst(session, value);
  if (same_word(name, "HASH")) return checksum_options(session, value);
  if (!same_word(name, "UTF8")) return session_reply(session, 501, "Options exist for UTF8, MLST and HASH only.");
  if (!value.empty() && !same_word(value, "ON")) return session_reply(session, 504, "UTF8 is always on.");
  session_reply(session, 200, "UTF8 is on.");
}

/// Data are sent byte for byte in either type: a text that changed on its way would not match its checksum.
void command_type(session& session, const std::string& argument) {
  static constexpr auto KNOWN = std::to_array<std::string_view>({"A", "A N", "I", "L 8", "L8"});
  choose(session, argument, KNOWN, "Type");
}

void command_mode(session& session, const std::string& argument) {
  static constexpr auto KNOWN = std::to_array<std::string_view>({"S"});
  choose(session, argument, KNOWN, "Mode");
}

void command_stru(session& session, const std::string& argument) {
  static constexpr auto KNOWN = std::to_array<std::string_view>({"F"});
  choose(session, argument, KNOWN, "Structure");
}

}  // namespace tarvex::server
