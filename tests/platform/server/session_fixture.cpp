#include "session_fixture.h"

#include "broker/broker_service.h"
#include "link/channel.h"
#include "session_process.h"
#include "storage/change_slots.h"
#include "storage/change_view.h"
#include "storage/plugin.h"
#include "tarvex_exchange.h"

#include <crypt.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <future>
#include <thread>

namespace tarvex::server::test {

namespace {

storage_script* current = nullptr;

tarvex_gfs_storage_iface_t scripted_interface() {
  tarvex_gfs_storage_iface_t made{};
  made.descriptor = 0x6b;
  made.init_func = [](auto op, auto* info) { current->start(op, info); };
  made.destroy_func = [](void*) { ++current->destroyed; };
  made.stat_func = [](auto op, auto* info, void*) { current->stat(op, info); };
  made.send_func = [](auto op, auto* info, void*) { current->send(op, info); };
  made.recv_func = [](auto op, auto* info, void*) { current->recv(op, info); };
  made.command_func = [](auto op, auto* info, void*) { current->command(op, info); };
  return made;
}

const tarvex_gfs_storage_iface_t INTERFACE = scripted_interface();

int activate() {
  return tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "scripted", nullptr, &INTERFACE);
}
int deactivate() {
  return tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "scripted");
}

const tarvex_module_descriptor_t MODULE = {"scripted", activate, deactivate, nullptr, nullptr, nullptr, nullptr};

}  // namespace

/// All that the tests know of the server's inside: how a session is run, and what it shares with others.
struct SessionTest::server_side {
  server::storage_plugin storage;
  descriptor broker_control;
  std::thread broker;
  std::unique_ptr<change_slots> slots = std::make_unique<change_slots>();
  std::thread thread;
  std::future<int> status;

  /// \return the session's end of a connection to a broker that runs as long as the session.
  int connect_broker(const configuration& config) {
    auto [mine, its] = link_pair();
    auto [session_end, broker_end] = link_pair();
    broker = std::thread([&config, control = std::make_shared<descriptor>(std::move(its))] {
      broker_service service(config, std::move(*control));
      if (service.open().empty()) service.run();
    });
    EXPECT_EQ(link_send(mine.get(), note_encode({.id = 1, .address = "127.0.0.1"}), broker_end.get()), 0);
    broker_control = std::move(mine);
    return session_end.release();
  }

  void run(const configuration& config, int control_socket) {
    session_setup setup;
    setup.config = &config;
    setup.broker_socket = connect_broker(config);
    setup.storage = &storage;
    setup.changes = slots.get();
    setup.control_socket = control_socket;
    std::packaged_task<int()> task([setup] { return session_run(setup); });
    status = task.get_future();
    thread = std::thread(std::move(task));
  }
};

void SessionTest::others_change(const std::string& path) {
  change_view other;
  other.open(server_->slots.get(), "alice");
  other.enter_change(path, change_view::maker::self);
}

void SessionTest::others_add(const std::string& path) {
  change_view other;
  other.open(server_->slots.get(), "alice");
  other.enter_addition(path, change_view::maker::self);
}

SessionTest::SessionTest() : server_(std::make_unique<server_side>()) {
  current = &script;
  script.start = [](auto op, auto*) {
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, nullptr, nullptr, "/");
  };
  script.stat = [](auto op, tarvex_gfs_stat_info_t* info) {
    const std::string path = info->pathname;
    if (path == "/" || path == "/dir") return info->file_only ? answer_item(op, true, 0) : answer_listing(op, 3, 100);
    if (path == "/file") return answer_item(op, false, 5);
    tarvex_gridftp_server_finished_stat(op, not_found(info->pathname), nullptr, 0);
  };
  script.send = [](auto op, auto*) {
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    (void)write_and_wait(op, "hello", 0);
    tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
  };
  add_to_account(std::string("[alice]\npassword = \"") + crypt("secret", "$5$rounds=1000$salt") +
                 "\"\ncredential = \"" + folder_.path("alice.json") + "\"\n");
  config.storage_dsi = "scripted";
  config.end_grace_ms = 0;
  server_->storage.module = &MODULE;
}

SessionTest::~SessionTest() {
  close_session();
}

void SessionTest::close_session() {
  control.close();
  unread_.clear();
  if (server_->thread.joinable()) server_->thread.join();
  server_->broker_control = descriptor();
  if (server_->broker.joinable()) server_->broker.join();
}

void SessionTest::add_to_account(const std::string& lines) {
  accounts_text_ += lines;
  config.accounts_file = folder_.write("accounts.toml", accounts_text_);
  chmod(config.accounts_file.c_str(), 0600);
}

void SessionTest::write_credential(const std::string& text) {
  chmod(folder_.write("alice.json", text).c_str(), 0600);
}

void SessionTest::connect(bool ipv6) {
  const loopback_socket listener = loopback_socket::listener(ipv6);
  control = loopback_socket::connect(listener.port(), {}, ipv6);
  server_->run(config, listener.accept().release());
  expect_reply("220 ");
}

void SessionTest::log_in() {
  connect();
  expect({{"USER alice", "331 "}, {"PASS secret", "230 "}});
}

std::string SessionTest::command(const std::string& line) {
  control.write(line + "\r\n");
  return reply();
}

std::string SessionTest::reply() {
  for (std::size_t line = 0;;) {
    const std::size_t end = unread_.find('\n', line);
    if (end == std::string::npos) {
      const std::string more = control.read();
      if (more.empty()) return std::exchange(unread_, {});
      unread_ += more;
      continue;
    }
    const bool last =
        end > line + 3 && std::isdigit(static_cast<unsigned char>(unread_[line])) != 0 && unread_[line + 3] == ' ';
    line = end + 1;
    if (!last) continue;
    const std::string whole = unread_.substr(0, line);
    unread_.erase(0, line);
    return whole;
  }
}

void SessionTest::expect(const std::string& line, const std::string& start) {
  EXPECT_THAT(command(line), StartsWith(start)) << line.substr(0, 100);
}

void SessionTest::expect(const std::vector<std::pair<std::string, std::string>>& rows) {
  for (const auto& [line, start] : rows) expect(line, start);
}

void SessionTest::expect_reply(const std::string& start) {
  EXPECT_THAT(reply(), StartsWith(start));
}

loopback_socket SessionTest::passive(const std::string& from) {
  const std::string answer = command("EPSV");
  const std::size_t bar = answer.find("|||");
  EXPECT_NE(bar, std::string::npos) << answer;
  if (bar == std::string::npos) return {};
  return loopback_socket::connect(static_cast<std::uint16_t>(std::stoi(answer.substr(bar + 3))), from);
}

std::string SessionTest::fetch(const std::string& line) {
  const loopback_socket data = passive();
  expect(line, "150 ");
  return data.read_all();
}

bool SessionTest::ended() {
  return server_->status.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
}

void play(const exchange& over) {
  const auto* const observer = static_cast<const tarvex_exchange_observer_t*>(
      tarvex_extension_registry_lookup(&tarvex_i_exchange_observer_registry, TARVEX_EXCHANGE_OBSERVER_NAME));
  ASSERT_NE(observer, nullptr);
  tarvex_exchange_t about{};
  about.method = over.method;
  about.path = over.path;
  about.request_type = over.type;
  about.digest = over.digest;
  about.authorised = true;
  EXPECT_EQ(observer->gate(observer->user_arg, &about), TARVEX_SUCCESS);
  about.status = over.status;
  about.may_have_arrived = over.status == 0;
  observer->observe(observer->user_arg, &about);
}

void answer_item(tarvex_gfs_operation_t op, bool folder, tarvex_off_t size) {
  tarvex_gridftp_server_control_stat_t entry{};
  std::string name = "name";
  entry.name = name.data();
  entry.mode = folder ? S_IFDIR | 0700 : S_IFREG | 0600;
  entry.size = size;
  entry.mtime = 1700000000;
  tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, &entry, 1);
}

void answer_listing(tarvex_gfs_operation_t op, int count, int batch) {
  std::vector<std::string> names;
  std::vector<tarvex_gridftp_server_control_stat_t> entries;
  const auto flush = [&](auto finish) {
    for (std::size_t i = 0; i < entries.size(); ++i) entries[i].name = names[i].data();
    finish(op, TARVEX_SUCCESS, entries.data(), static_cast<int>(entries.size()));
    names.clear();
    entries.clear();
  };
  for (int i = -1; i < count; ++i) {
    tarvex_gridftp_server_control_stat_t entry{};
    entry.mode = i < 0 ? S_IFDIR | 0700 : S_IFREG | 0600;
    names.push_back(i < 0 ? "." : "f" + std::to_string(i));
    entries.push_back(entry);
    if (static_cast<int>(entries.size()) == batch) flush(tarvex_gridftp_server_finished_stat_partial);
  }
  flush(tarvex_gridftp_server_finished_stat);
}

tarvex_result_t not_found(const char* path) {
  return tarvex_error_put(
      tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"%s\"", path));
}

bool write_and_wait(tarvex_gfs_operation_t op, std::string bytes, tarvex_off_t offset) {
  std::promise<bool> written;
  const auto callback = [](tarvex_gfs_operation_t, tarvex_result_t result, unsigned char*, size_t, void* argument) {
    static_cast<std::promise<bool>*>(argument)->set_value(result == TARVEX_SUCCESS);
  };
  const tarvex_result_t registered = tarvex_gridftp_server_register_write(
      op, reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), offset, 0, callback, &written);
  tarvex_result_release(registered);
  return registered == TARVEX_SUCCESS && written.get_future().get();
}

void wait_for_cancel() {
  const timespec long_time{60, 0};
  EXPECT_EQ(tarvex_sleep(&long_time), ECANCELED);
}

}  // namespace tarvex::server::test
