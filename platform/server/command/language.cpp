#include "base/text.h"
#include "command/handler.h"
#include "session/session.h"

#include <algorithm>

namespace tarvex::server {

namespace {

/// Whether a text has the form of a language tag: words of one to eight letters or digits, joined by hyphens.
bool is_language_tag(std::string_view text) {
  constexpr std::size_t LONGEST_WORD = 8;
  if (text.ends_with('-')) return false;
  while (!text.empty()) {
    const std::string_view word = take_field(text, '-');
    if (word.empty() || word.size() > LONGEST_WORD || !std::all_of(word.begin(), word.end(), is_alphanumeric))
      return false;
  }
  return true;
}

}  // namespace

/// RFC 2640 section 4.1. Replies are in English, of whatever country it is asked for.
handled command_lang(session& client, std::string argument) {
  std::string_view tag = argument;
  if (!is_language_tag(argument)) co_return client.reply(501, "LANG takes a language tag, as en.");
  if (!argument.empty() && !same_word(take_field(tag, '-'), "EN"))
    co_return client.reply(504, "Replies are in English only (en).");
  client.reply(200, "Replies are in English.");
}

}  // namespace tarvex::server
