#include "api/event.h"

namespace tarvex::emulator {

// Clients that wait for events find none, and a position to come back with.
response event_list(call& /*of*/) {
  const json_ptr page(json_pack("{s:i,s:i,s:[]}", "chunk_size", 0, "next_stream_position", 1, "entries"));
  return response_json(200, page.get());
}

}  // namespace tarvex::emulator
