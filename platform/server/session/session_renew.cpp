#include "session/session_renew.h"

#include "base/log.h"
#include "session/session_state.h"

namespace tarvex::server {

namespace {

void renew(operation& op) {
  session& session = op.session;
  const auto* interface = session.setup.storage->interface;
  if (interface->destroy_func) interface->destroy_func(session.storage.session);
  const std::string peer = session.control.peer().host();
  tarvex_gfs_session_info_t info{session.login.who.name.c_str(), peer.c_str()};
  interface->init_func(&op, &info);
}

}  // namespace

void session_renew_storage(session& session, std::function<void(server::session&)> then) {
  auto op = std::make_unique<operation>(session, operation_kind::session_start);
  op->verb = "renew";
  op->work = renew;
  op->done = [then = std::move(then)](operation& over) {
    server::session& of = over.session;
    of.unfinished.clear();
    of.storage.session = over.storage_session;
    of.storage.started = operation_succeeded(over);
    if (of.storage.started) return then(of);
    log_warning("{}: the storage does not start again: {}", session_who(of), operation_failure_text(over));
    session_reply(of, 421, "The storage is not available; closing the control connection.");
    session_end(of, "no storage");
  };
  operation_start(session, std::move(op));
}

}  // namespace tarvex::server
