#pragma once

#include "config/configuration.h"
#include "link/connection_note.h"
#include "tarvex_common.hpp"

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace tarvex::server {

/// The listener's part in the broker: it starts the process, starts another when that has ended, and hands it a
/// connection for each session. It keeps the other end of each, so that a new broker takes them all over, with the
/// account that each is bound to. The listener's thread.
class broker_keeper {
 public:
  broker_keeper() = default;
  ~broker_keeper();
  broker_keeper(const broker_keeper&) = delete;
  broker_keeper& operator=(const broker_keeper&) = delete;

  /// Starts the broker and waits until it is ready. Called as root where the program was started so: what starts the
  /// next broker stays root then.
  /// \return what went wrong; empty: it serves.
  [[nodiscard]] std::string start(const std::string& file, const configuration& config);

  /// Ends the broker where the configuration says other things for it, so that another one goes by them.
  void renew(const configuration& config);

  /// Makes a connection for a session. \return the session's end; none when there are no descriptors.
  [[nodiscard]] descriptor connect(std::uint64_t id, const std::string& address);
  /// The session is no more.
  void forget(std::uint64_t id);

  /// Readable when `listen` has something to do.
  [[nodiscard]] int notes() const { return control_.get(); }
  void listen();
  /// A process has ended. \return whether it was the broker.
  bool ended(pid_t process);
  /// When `mend` has something to do, at the latest; the end of time: never.
  [[nodiscard]] std::chrono::steady_clock::time_point due() const { return due_; }
  /// Starts a broker where there is none, and hands over what could not be handed over before.
  void mend();

 private:
  struct kept_connection {
    descriptor broker_end;
    connection_note note;
    bool handed = false;
  };

  std::string launch();
  void start_starter();
  pid_t start_broker();
  bool hand(kept_connection& kept);
  void hand_all();
  [[nodiscard]] std::string wait_until_ready();

  std::string file_;
  configuration config_;
  descriptor control_;
  descriptor starter_;  ///< the connection to the process that stays root; none: the listener starts brokers itself
  pid_t broker_ = -1;   ///< -1: there is none
  bool ready_ = false;
  bool started_once_ = false;
  std::string start_error_;  ///< what the last broker said of its start
  std::chrono::steady_clock::time_point due_ = std::chrono::steady_clock::time_point::max();
  std::chrono::steady_clock::time_point started_{};
  std::map<std::uint64_t, kept_connection> connections_;
};

}  // namespace tarvex::server
