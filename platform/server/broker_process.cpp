#include "broker_process.h"

#include "base/leak_check.h"
#include "base/log.h"
#include "broker/broker_service.h"
#include "broker/broker_user.h"
#include "broker/store_folder.h"
#include "config/broker_check.h"
#include "config/secret_file.h"
#include "confine/file_access.h"
#include "confine/fresh_process.h"
#include "confine/privileges.h"
#include "confine/session_places.h"
#include "link/channel.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <utility>

namespace tarvex::server {

namespace {

constexpr const char* PROCESS_NAME = "tarvex-broker";

/// Signals are for the listener, whose end is the broker's.
void broker_set_signals() {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) std::signal(signal, SIG_IGN);
  for (const int signal : {SIGCHLD, SIGXFSZ}) std::signal(signal, signal == SIGCHLD ? SIG_DFL : SIG_IGN);
  sigset_t none;
  sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Serves until the listener is done. \return whether it did; the listener is told why not.
bool broker_serve(const configuration& config, descriptor control) {
  const int notes = control.get();
  const std::string user = broker_user(config);
  // While this is root yet: the folder around the store need not be the broker's.
  std::string error = config.broker_directory.empty() ? "" : store_folder_open(config.broker_directory, user);
  if (error.empty() && user != "root") error = privileges_give_up(user);
  hide_memory();  // again: the change of user undoes it
  broker_service service(config, std::move(control));
  if (error.empty()) error = service.open();
  if (error.empty()) service.run();
  if (!error.empty()) (void)link_send(notes, note_encode({.error = error}));
  return error.empty();
}

/// What of the broker's lies where sessions may read; empty: nothing.
std::string place_in_reach(const configuration& config) {
  for (const std::string& path :
       {config.broker_directory, store_key_path(config), config.box_client_secret_file, config.accounts_file}) {
    for (const accessible_place& place : session_places(config))
      if (!path.empty() && lies_in(path, place.path)) return path + " lies in " + place.path + ", which they may read";
  }
  return {};
}

}  // namespace

std::string broker_apart(const configuration& config, std::string& warning) {
  if (config.broker_directory.empty()) return {};
  if (geteuid() == 0 && broker_user(config) != config.user) return {};
  if (geteuid() == 0 && configuration_line(config, "broker.user") != 0 && !user_exists(config.broker_user))
    return "user in [broker]: there is no user \"" + config.broker_user + "\" to become: make one (useradd --system " +
           config.broker_user + "), or name another";
  const bool confined = config.sandbox != sandbox_mode::off && file_access_version() > 0;
  const std::string place = confined ? place_in_reach(config) : "they are not confined by Landlock";
  if (place.empty()) return {};
  const std::string why =
      "nothing keeps sessions from the broker's files: it has no user of its own (user in [broker], of a server that "
      "is started as root), and " +
      place;
  if (config.sandbox == sandbox_mode::require) return why + ", as sandbox = \"require\" in [security] wants";
  warning = why;
  return {};
}

void broker_process_run(const std::string& file, const configuration& config, descriptor control) {
  (void)prctl(PR_SET_NAME, PROCESS_NAME);
  close_others({control.get()});
  hide_memory();
  broker_set_signals();
  read_nothing_from_stdin();
  mallopt(M_ARENA_MAX, 2);
  configuration fresh;
  const bool readable = configuration_load(file, fresh).empty();
  try {
    const bool served = broker_serve(readable ? fresh : config, std::move(control));
    _exit(served && leak_check() ? 0 : 1);
  } catch (const std::exception& error) {
    log_error("broker: {}", error.what());
    _exit(1);
  }
}

}  // namespace tarvex::server
