// TLS on the control connection, and what it means for data connections (RFC 2228, RFC 4217).
#include "base/number.h"
#include "base/text.h"
#include "command/handler.h"
#include "ftp/reply.h"
#include "session/session.h"

#include <cstdint>

namespace tarvex::server {

/// What was said before, and what somebody on the way may have said, counts for nothing under TLS.
handled command_auth(session& client, std::string mechanism) {
  if (!client.tls) co_return client.reply(502, "TLS is not offered here.");
  if (!same_word(mechanism, "TLS") && !same_word(mechanism, "TLS-C"))
    co_return client.reply(504, "The only mechanism is TLS.");
  if (client.control.secured()) co_return client.reply(503, "The control connection is under TLS already.");
  if (client.login.logged_in) co_return client.reply(503, "AUTH has to come before the login.");
  client.login.user.clear();
  client.settings = {};
  std::string invitation = reply_format(234, "Begin the TLS handshake.");
  (void)co_await client.secure(std::move(invitation));  // a failure has ended the session
}

/// TLS has no use for the size: whatever is asked for, 0 is the answer (RFC 4217 section 8).
handled command_pbsz(session& client, std::string argument) {
  if (!client.control.secured()) co_return client.reply(503, "PBSZ comes after AUTH TLS.");
  if (!parse_number<std::uint32_t>(argument)) co_return client.reply(501, "PBSZ takes a number up to 4294967295.");
  client.settings.protection_buffer_told = true;
  client.reply(200, "PBSZ=0");
}

handled command_prot(session& client, std::string level) {
  if (!client.control.secured()) co_return client.reply(503, "PROT comes after AUTH TLS.");
  if (!client.settings.protection_buffer_told) co_return client.reply(503, "PROT comes after PBSZ 0.");
  if (same_word(level, "S") || same_word(level, "E")) co_return client.reply(536, "TLS knows the levels C and P only.");
  const bool is_private = same_word(level, "P");
  if (!is_private && !same_word(level, "C")) co_return client.reply(504, "PROT takes C or P.");
  client.protect_data(is_private);
  client.reply(200, is_private ? "Data connections go under TLS." : "Data connections go in plain text.");
}

/// Whoever could make a client believe that its commands need no protection could go on to give them.
handled command_ccc(session& client, std::string) {
  if (!client.control.secured()) co_return client.reply(533, "The control connection is not under TLS.");
  client.reply(534, "Commands stay protected.");
}

}  // namespace tarvex::server
