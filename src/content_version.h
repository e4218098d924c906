/// \file
/// Which version of a file a download gets. All of its parts have to be of one.
#pragma once

#include "request.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace tarvex::box {

/// The value of a header, whose name is matched without regard to case; null: the answer does not have it.
const char* header_value(const tarvex_dsi_rest_key_array_t& headers, const char* name);

/// What a Content-Range header tells (RFC 9110 section 14.4); what it does not tell is missing.
struct content_range {
  std::optional<uint64_t> first = {};
  std::optional<uint64_t> last = {};
  std::optional<uint64_t> total = {};
};
content_range content_range_parse(const char* value);

/// A file's record, as far as it tells versions apart.
struct version_record {
  uint32_t next_etag = 0;  ///< as in the item record
  std::string sha1 = {};
  uint64_t size = 0;

  bool operator==(const version_record&) const = default;
};

/// Asks Box for a file's record.
[[nodiscard]] tarvex_result_t version_record_get(tarvex_box_session_t* box, const error_place& place, const char* id,
                                                 version_record& out);

/// The version that a download began with. Not guarded: the caller's lock is.
class content_version {
 public:
  enum class verdict { same, changed, not_as_recorded };

  /// \param record  the file's, from before its content was asked for
  explicit content_version(version_record record) : record_(std::move(record)) {}

  const version_record& record() const { return record_; }
  /// Whether an answer was accepted.
  bool begun() const { return begun_; }
  /// Compares an answer with content (200, 206), or one without (416), with those before. The first may show that the
  /// file is not as its record had it; from then on that is a change.
  [[nodiscard]] verdict compare(int status, const tarvex_dsi_rest_key_array_t& headers);
  /// Whether answers tell versions apart by themselves; else the record has to be looked at when the address changes.
  bool has_validators() const { return !texts_[0].empty() || !texts_[1].empty(); }

 private:
  version_record record_;
  bool begun_ = false;                     ///< an answer was accepted
  std::array<std::string, 2> texts_ = {};  ///< of the validators; empty: not told yet
};

/// Looks at the file's record, unless the answers tell versions apart. Called once a new address was given: no other
/// version than the record's can have been the file's then.
/// \return 451 FILE_CHANGED when it is not the one that the download began with
[[nodiscard]] tarvex_result_t version_check(tarvex_box_session_t* box, const error_place& place, const char* id,
                                            const content_version& version);

/// 451 FILE_CHANGED.
[[nodiscard]] tarvex_result_t error_changed();

}  // namespace tarvex::box
