// What GridFTP adds to FTP's transfer parameters (GFD-R.020).
#include "command/extended.h"

#include "base/number.h"
#include "base/text.h"
#include "command/handler.h"
#include "session/session.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>

namespace tarvex::server {

namespace {

constexpr std::size_t LEAST_BLOCK_BYTES = 4096;
constexpr std::size_t LARGEST_BLOCK_BYTES = 4 << 20;  // each connection keeps a buffer of one

/// One option of OPTS RETR. \return false when the value is none.
struct retrieve_option {
  std::string_view name;
  bool (*take)(client_settings& settings, std::string_view value);
};

/// "start,least,most": the first is how many there are.
bool take_parallelism(client_settings& settings, std::string_view value) {
  std::array<std::optional<unsigned>, 3> numbers;
  for (auto& number : numbers) {
    number = parse_number<unsigned>(take_field(value, ','));
    if (!number || *number == 0) return false;
    if (value.empty()) break;
  }
  settings.retrieve_connections = *numbers[0];
  return value.empty();
}

bool take_block_size(client_settings& settings, std::string_view value) {
  const auto bytes = parse_number<std::size_t>(value);
  if (!bytes || *bytes == 0) return false;
  settings.retrieve_block_bytes = std::clamp(*bytes, LEAST_BLOCK_BYTES, LARGEST_BLOCK_BYTES);
  return true;
}

bool pass_over(client_settings&, std::string_view) {
  return true;
}

constexpr auto RETRIEVE_OPTIONS = std::to_array<retrieve_option>({
    {"Parallelism", take_parallelism},
    {"BlockSize", take_block_size},
    {"StripeBlockSize", take_block_size},
    {"StripeLayout", pass_over},
    {"Markers", pass_over},
});

bool take_option(client_settings& settings, std::string_view option) {
  const std::string_view name = take_field(option, '=');
  const auto* const row = std::find_if(RETRIEVE_OPTIONS.begin(), RETRIEVE_OPTIONS.end(),
                                       [&](const retrieve_option& known) { return same_word(known.name, name); });
  return row != RETRIEVE_OPTIONS.end() && row->take(settings, option);
}

/// Data connections have to show the certificate of the control connection.
void authenticate_data(session& client) {
  const certificate_names shown = client.control.peer_certificate();
  if (shown.empty()) return client.reply(503, "DCAU A needs TLS and a client certificate on the control connection.");
  // By its digest where there is one: a subject can be another certificate's, too.
  const auto exact =
      std::find_if(shown.begin(), shown.end(), [](const std::string& name) { return name.starts_with("sha256:"); });
  client.data.protection().certificate = exact == shown.end() ? shown.front() : *exact;
  client.reply(200, "Data connections have to show the certificate of the control connection.");
}

}  // namespace

void opts_retr(session& client, std::string_view options) {
  client_settings wanted = client.settings;
  if (options.empty()) return client.reply(501, "OPTS RETR takes Parallelism=start,least,most; and BlockSize=bytes;.");
  while (!options.empty()) {
    const std::string_view option = take_field(options, ';');
    if (!take_option(wanted, option)) return client.reply(501, "OPTS RETR: " + std::string(option) + " is not known.");
  }
  wanted.retrieve_connections = std::min(wanted.retrieve_connections, client.config.data_streams);
  client.settings = wanted;
  client.reply(200, "RETR in extended block mode: " + std::to_string(wanted.retrieve_connections) +
                        " connections, blocks of " + std::to_string(wanted.retrieve_block_bytes) + " bytes.");
}

/// Data are sent byte for byte in either mode; extended block mode only says where they belong.
handled command_mode(session& client, std::string argument) {
  const bool blocks = same_word(argument, "E");
  if (!blocks && !same_word(argument, "S")) co_return client.reply(504, "Mode " + argument + " is not offered.");
  client.settings.block_mode = blocks;
  client.reply(200, "Mode set to " + argument + ".");
}

/// What the receiver has: in stream mode mostly the beginning of the file, in extended block mode any ranges of it.
handled command_rest(session& client, std::string argument) {
  auto held = file_ranges_parse(argument);
  client.settings.held.clear();
  if (!held)
    co_return client.reply(
        501, "REST takes an offset in bytes from 0 to 9223372036854775807, or ranges begin-end,begin-end.");
  const bool offset = argument.find('-') == std::string::npos;
  client.settings.held = std::move(*held);
  client.reply(350, (offset ? "Restarting at " + argument : "Restarting without " + argument) + "; send RETR or STOR.");
}

/// Authentication of data connections: by address, which is always done, or by certificate, which needs one.
handled command_dcau(session& client, std::string argument) {
  std::string_view rest = argument;
  const std::string_view mode = take_word(rest);
  if (same_word(mode, "A") && rest.empty()) co_return authenticate_data(client);
  if (same_word(mode, "N") && rest.empty()) {
    client.data.protection().certificate.clear();
    co_return client.reply(200, "Data connections are not authenticated.");
  }
  if (same_word(mode, "S") && !rest.empty())
    co_return client.reply(504, "Data connections cannot be authenticated for another subject.");
  client.reply(501, "DCAU takes N, A or S subject.");
}

handled command_sbuf(session& client, std::string argument) {
  const auto bytes = parse_number<int>(argument);
  if (!bytes || *bytes < 0)
    co_return client.reply(501, "SBUF takes a size in bytes; 0 leaves it to the server's system.");
  client.data.set_buffers(*bytes);
  client.reply(200, "Buffers of data connections: " + argument + " bytes.");
}

}  // namespace tarvex::server
