#include "command/answer.h"

#include "base/log.h"
#include "ftp/path.h"
#include "session/session.h"
#include "storage/transfer.h"

namespace tarvex::server {

void answer_failure(session& client, std::string_view verb, std::string_view path, const outcome& how) {
  log_info("{}: {} {} failed: {}", client.who(), verb, path, how.text());
  client.reply(how.code, how.lines);
}

void answer_denied(session& client, std::string_view verb, std::string_view argument) {
  answer_failure(client, verb, argument, outcome_failure(550, "PERMISSION_DENIED"));
}

bool answer_change(session& client, std::string_view verb, std::string_view path, const outcome& how) {
  if (!how.ok()) {
    answer_failure(client, verb, path, how);
    return false;
  }
  log_info("{}: {} {}: done", client.who(), verb, path);
  return true;
}

void answer_transfer(session& client, std::string_view verb, std::string_view path, const transfer& channel,
                     const outcome& how) {
  log_info("{}: {} {}: {} bytes in {:.3f} s: {}", client.who(), verb, path, channel.moved_bytes(),
           channel.elapsed().count(), how.ok() ? "complete" : how.text());
  client.data.close();
  if (!how.ok()) return client.reply(how.code, how.lines);
  client.reply(226, "Transfer complete; " + std::to_string(channel.moved_bytes()) +
                        (channel.receives() ? " bytes received." : " bytes sent."));
}

std::optional<std::string> path_argument(session& client, std::string_view argument) {
  auto path = path_normalise(client.settings.directory, argument);
  if (!path) client.reply(501, "This is no path: it is too long or holds control bytes.");
  return path;
}

bool root_refused(session& client, std::string_view path) {
  if (path != "/") return false;
  client.reply(553, "The root is neither removed nor renamed nor replaced.");
  return true;
}

bool transfer_possible(session& client) {
  const data_protection& wanted = client.data.protection();
  if (!wanted.certificate.empty() && wanted.tls == nullptr) {
    client.reply(503, "DCAU A needs private data connections: send PROT P, or DCAU N.");
    return false;
  }
  if (client.data.ready()) return true;
  client.reply(425, "Prepare a data connection with PASV, EPSV, PORT or EPRT first.");
  return false;
}

bool download_possible(session& client) {
  if (!transfer_possible(client)) return false;
  if (!client.settings.block_mode || !client.data.passive()) return true;
  client.reply(425, "In extended block mode the server connects to send a file: use PORT, EPRT or SPOR first.");
  return false;
}

bool upload_possible(session& client) {
  if (!transfer_possible(client)) return false;
  if (!client.settings.block_mode || client.data.passive()) return true;
  client.reply(425, "In extended block mode the client connects to send a file: use PASV, EPSV or SPAS first.");
  return false;
}

}  // namespace tarvex::server
