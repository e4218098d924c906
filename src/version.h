/// \file
/// Stores that give a file a new version instead of deleting it first: its id, links and history stay, and the old
/// content until the new one is complete.
#pragma once

#include "item.h"

#include <optional>
#include <string>
#include <vector>

namespace tarvex::box {

/// The file that gets a new version, as it was last seen.
struct version_target {
  std::string id = {};
  uint32_t next_etag = 0;  ///< as in the item record
  bool has_metadata = false;
};

/// Whether a store onto this item makes a new version of it.
bool version_replaces(const tarvex_box_path_info_t& item);

/// The file at a path in `parent` that a store gives a new version; nothing: there is none.
std::optional<version_target> version_target_at(tarvex_box_session_t* box, const char* path,
                                                const tarvex_box_path_info_t& parent);

/// Looks at Box for the file at a path if a change is known or feared, so that the store meets what is there now. One
/// that is gone, or has another place or name, leaves the path cache. \return a failed look's error.
[[nodiscard]] tarvex_result_t version_refresh(tarvex_box_session_t* box, const char* path,
                                              const tarvex_box_path_info_t& parent);

/// Adds the condition that nobody else has changed the file (RFC 9110 section 13.1.1), if its etag is known.
void version_condition(uint32_t next_etag, std::vector<request_header>& headers);

/// One store of a new version.
struct version_store {
  const char* path;
  const tarvex_box_path_info_t& parent;
  version_target target;
  std::string sha1 = {};  ///< of the new content, in hex
  std::string md5 = {};   ///< likewise
};

/// Settles the request that ends such a store: looks at the file where its answer leaves open what was done, renews the
/// MD5 property and enters the file into the path cache.
/// \param result  of the request; taken over
/// \return 553 FILE_CHANGED when somebody else has changed the file since; the next store of the path looks first.
[[nodiscard]] tarvex_result_t version_settle(tarvex_box_session_t* box, const error_place& place,
                                             const version_store& store, tarvex_result_t result, const answer& stored);

}  // namespace tarvex::box
