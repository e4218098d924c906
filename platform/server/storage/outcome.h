#pragma once

#include "tarvex_common.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// How an operation ended, in the words that the client is told.
struct outcome {
  int code = 0;                    ///< reply code of the failure (RFC 959 section 4.2); 0: success
  std::vector<std::string> lines;  ///< class word, message and causes of a failure, a line each
  std::string class_word;          ///< of the storage's error; empty: it has none

  bool ok() const { return code == 0; }
  /// Whether the storage knows no such item.
  bool missing() const { return class_word == "PATH_NOT_FOUND" || class_word == "NOT_A_DIRECTORY"; }
  /// The lines joined by "; ", for the log.
  std::string text() const;
};

/// Reads a result: the code of its FTP response error, or `default_code` where it has none or says 500 of an internal
/// error; then that error with its causes, so that the class word is the first line, and what was wrapped around it.
/// Does not release `result`.
outcome outcome_of(tarvex_result_t result, int default_code);

/// A failure of the server's own.
outcome outcome_failure(int code, std::string_view line);

/// Class word of a result's FTP response error, borrowed from it; empty: none.
std::string_view result_class(tarvex_result_t result);

/// Whether the storage says by a result that there is no such item.
bool result_missing(tarvex_result_t result);

/// Where a store that failed can go on, if its storage says so by a line `Box-Upload-Offset: "N"` of the error: all
/// bytes before are stored, and what it has beyond it takes again without sending it.
std::optional<std::uint64_t> result_upload_offset(tarvex_result_t result);

}  // namespace tarvex::server
