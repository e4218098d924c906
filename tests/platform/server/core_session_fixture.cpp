#include "core_session_fixture.h"

#include <arpa/inet.h>
#include <crypt.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace tarvex::server::test {

namespace {

constexpr int READ_LIMIT_S = 20;
storage_script* current = nullptr;

void start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t* info) {
  current->start(op, info);
}
void destroy(void*) {
  ++current->destroyed;
}
void stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* info, void*) {
  current->stat(op, info);
}
void send(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* info, void*) {
  current->send(op, info);
}
void recv(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* info, void*) {
  current->recv(op, info);
}
void command(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* info, void*) {
  current->command(op, info);
}

const tarvex_gfs_storage_iface_t INTERFACE = {.descriptor = 0x6b,
                                              .init_func = start,
                                              .destroy_func = destroy,
                                              .list_func = nullptr,
                                              .send_func = send,
                                              .recv_func = recv,
                                              .trev_func = nullptr,
                                              .active_func = nullptr,
                                              .passive_func = nullptr,
                                              .data_destroy_func = nullptr,
                                              .command_func = command,
                                              .stat_func = stat,
                                              .set_cred_func = nullptr,
                                              .buffer_send_func = nullptr,
                                              .realpath_func = nullptr};

int activate() {
  return tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "scripted", nullptr, &INTERFACE);
}
int deactivate() {
  return tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "scripted");
}

const tarvex_module_descriptor_t MODULE = {"scripted", activate, deactivate, nullptr, nullptr, nullptr, nullptr};

sockaddr_storage address_of(const std::string& host, std::uint16_t port, bool ipv6) {
  sockaddr_storage address{};
  if (ipv6) {
    auto* six = reinterpret_cast<sockaddr_in6*>(&address);
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(port);
    six->sin6_addr = in6addr_loopback;
  } else {
    auto* four = reinterpret_cast<sockaddr_in*>(&address);
    four->sin_family = AF_INET;
    four->sin_port = htons(port);
    inet_pton(AF_INET, host.empty() ? "127.0.0.1" : host.c_str(), &four->sin_addr);
  }
  return address;
}

int socket_bound(const std::string& host, std::uint16_t port, bool ipv6) {
  const int descriptor = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_storage address = address_of(host, port, ipv6);
  EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << strerror(errno);
  return descriptor;
}

}  // namespace

loopback_socket::loopback_socket(int descriptor) : descriptor_(descriptor) {
  const timeval limit{READ_LIMIT_S, 0};
  setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

loopback_socket::~loopback_socket() {
  close();
}
loopback_socket::loopback_socket(loopback_socket&& other) noexcept : descriptor_(other.release()) {}

loopback_socket& loopback_socket::operator=(loopback_socket&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

loopback_socket loopback_socket::listener(bool ipv6) {
  loopback_socket made(socket_bound({}, 0, ipv6));
  EXPECT_EQ(listen(made.descriptor_, 8), 0);
  return made;
}

loopback_socket loopback_socket::connect(std::uint16_t port, const std::string& from, bool ipv6) {
  loopback_socket made(socket_bound(from, 0, ipv6));
  const sockaddr_storage address = address_of({}, port, ipv6);
  if (::connect(made.descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) made.close();
  return made;
}

loopback_socket loopback_socket::accept() const {
  return loopback_socket(::accept(descriptor_, nullptr, nullptr));
}

std::uint16_t loopback_socket::port() const {
  sockaddr_in6 address{};
  socklen_t length = sizeof(address);
  getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin6_port);  // at the same place for IPv4
}

void loopback_socket::write(const std::string& bytes) const {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t sent = ::send(descriptor_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent <= 0) return;
    done += static_cast<std::size_t>(sent);
  }
}

std::string loopback_socket::read(std::size_t most) const {
  std::string bytes(most, '\0');
  const ssize_t count = ::recv(descriptor_, bytes.data(), bytes.size(), 0);
  EXPECT_FALSE(count < 0 && errno == EAGAIN) << "nothing came for " << READ_LIMIT_S << " s";
  bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return bytes;
}

std::string loopback_socket::read_all() const {
  std::string all;
  for (std::string more = read(); !more.empty(); more = read()) all += more;
  return all;
}

void loopback_socket::reset() {
  const linger at_once{1, 0};
  setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  close();
}

void loopback_socket::close() {
  if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
}

int loopback_socket::release() {
  return std::exchange(descriptor_, -1);
}

void SessionTest::SetUp() {
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
  directory_ = std::filesystem::temp_directory_path() / "core_session_XXXXXX";
  ASSERT_NE(mkdtemp(directory_.data()), nullptr);
  config.accounts_file = directory_ + "/accounts.toml";
  config.storage_dsi = "scripted";
  std::ofstream(config.accounts_file) << "[alice]\npassword = \"" << crypt("secret", "$5$rounds=1000$salt")
                                      << "\"\ncredential = \"" << directory_ << "/alice.json\"\n";
  chmod(config.accounts_file.c_str(), 0600);
  storage_.module = &MODULE;
}

void SessionTest::TearDown() {
  close_session();
  std::filesystem::remove_all(directory_);
}

void SessionTest::close_session() {
  control.close();
  unread_.clear();
  if (thread_.joinable()) thread_.join();
}

void SessionTest::write_credential(const std::string& text) {
  std::ofstream(directory_ + "/alice.json") << text;
}

void SessionTest::connect(bool ipv6) {
  const loopback_socket listener = loopback_socket::listener(ipv6);
  control = loopback_socket::connect(listener.port(), {}, ipv6);
  session_setup setup;
  setup.config = &config;
  setup.storage = &storage_;
  setup.changes = &changes;
  setup.control_socket = listener.accept().release();
  std::packaged_task<int()> task([setup] { return session_run(setup); });
  status_ = task.get_future();
  thread_ = std::thread(std::move(task));
  ASSERT_EQ(reply().substr(0, 4), "220 ");
}

void SessionTest::log_in() {
  connect();
  ASSERT_EQ(command("USER alice").substr(0, 4), "331 ");
  ASSERT_EQ(command("PASS secret").substr(0, 4), "230 ");
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

loopback_socket SessionTest::passive(const std::string& from) {
  const std::string answer = command("EPSV");
  const std::size_t bar = answer.find("|||");
  EXPECT_NE(bar, std::string::npos) << answer;
  if (bar == std::string::npos) return {};
  return loopback_socket::connect(static_cast<std::uint16_t>(std::stoi(answer.substr(bar + 3))), from);
}

bool SessionTest::ended() {
  return status_.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
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

}  // namespace tarvex::server::test
