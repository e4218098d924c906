/// \file
/// What Box has of an upload session.
#pragma once

#include "part_request.h"

#include <string>

namespace tarvex::box {

enum class part_presence {
  absent,
  there,  ///< with the same bytes
  other,  ///< other bytes are at its place
};

/// What a part that Box has, as its answers describe it, means for one of ours.
part_presence part_compare(json_t* record, const tarvex_box_upload_session_t& upload, const part_content& part);

/// What Box answered when it was asked for a part.
struct part_look {
  owned_result failure = {};  ///< why it is not known whether Box has it
  int status = 0;             ///< of the last answer
  part_presence presence = part_presence::absent;
  json_ptr record = {};  ///< Box's, of a part that is there
};

/// Asks Box for the parts of the session until it is known whether it has this one. Any thread.
/// \param token  access token
part_look part_look_up(tarvex_box_session_t* box, const error_source& source, const tarvex_box_upload_session_t& upload,
                       const part_content& part, const std::string& token);

}  // namespace tarvex::box
