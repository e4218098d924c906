#include "storage/operation_send.h"

#include "command/stat.h"
#include "session/session_state.h"

namespace tarvex::server {

std::unique_ptr<operation> send_make(session& session, std::string_view verb, const std::string& path,
                                     byte_range range) {
  auto op = operation_make(session, operation_kind::transfer, verb, path);
  op->next_offset = range.offset;
  op->work = [range](operation& started) {
    {
      const std::lock_guard lock(started.order_mutex);
      started.ranges = {range};
    }
    tarvex_gfs_transfer_info_t info{started.path.c_str(), 0, false};
    started.session.setup.storage->interface->send_func(&started, &info, started.session.storage.session);
  };
  op->rewind = [range](operation& ended) {
    const std::lock_guard lock(ended.order_mutex);
    return ended.next_offset == range.offset;
  };
  return op;
}

}  // namespace tarvex::server
