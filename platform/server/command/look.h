#pragma once

#include "storage/storage_session.h"

#include <boost/asio/awaitable.hpp>

#include <optional>
#include <string>

namespace tarvex::server {

class session;

/// Asks the storage for the attributes of one item; answers the client itself when there is none.
boost::asio::awaitable<std::optional<item_stat>> look_at(session& client, std::string verb, std::string path);

/// The same for a file; answers 550 itself when it is a folder. Storages may number files and folders apart, so that a
/// folder taken for a file would be another file.
boost::asio::awaitable<std::optional<item_stat>> look_at_file(session& client, std::string verb, std::string path);

}  // namespace tarvex::server
