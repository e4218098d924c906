#include "broker/broker_user.h"

#include "confine/privileges.h"

namespace tarvex::server {

std::string broker_user(const configuration& config) {
  const bool own = !config.broker_directory.empty() && user_exists(config.broker_user);
  return own ? config.broker_user : config.user;
}

}  // namespace tarvex::server
