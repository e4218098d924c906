#pragma once

#include <string>

namespace tarvex::server {

/// One command line as it came.
struct control_line {
  std::string text = {};
  bool too_long = false;  ///< the text was dropped
  bool abort = false;     ///< it is an ABOR
  bool aborted = false;   ///< an ABOR that has cancelled an operation, and is yet to be answered
  bool overrun = false;   ///< no line: so many waited that those behind were dropped; the session cannot go on
};

}  // namespace tarvex::server
