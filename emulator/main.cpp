#include "api/router.h"
#include "base/json.h"
#include "box/box_state.h"
#include "control/control.h"
#include "control/demo.h"
#include "http/server.h"
#include "options.h"

#include <signal.h>

#include <cstdio>
#include <exception>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace {

using namespace std::string_literals;
namespace emulator = tarvex::emulator;

/// Blocks the signals that end the program in all threads, so that one thread can wait for them.
sigset_t block_signals() {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  // Before the first thread is started, as threads inherit the mask. SIGPIPE would end the program at a lost client.
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return ending;
}

/// Reads a JSON file and hands it to `add`, which returns an empty text or what is wrong. Throws std::runtime_error
/// that names the file: a list with a mistake must not pass for an empty one.
template <typename Add>
void load_json(const std::string& file, const Add& add) {
  std::ifstream stream(file);
  std::stringstream text;
  text << stream.rdbuf();
  if (!stream) throw std::runtime_error("cannot read " + file);
  const emulator::json_ptr rows = emulator::json_parse(text.str());
  const std::string refusal = rows ? add(rows.get()) : "it is not JSON"s;
  if (!refusal.empty()) throw std::runtime_error(file + ": " + refusal);
}

void set_passwords(emulator::box_state& box, const emulator::options& given) {
  const emulator::transaction hold(box.data);
  for (const auto& [name, password] : given.passwords) {
    if (!box.users.find_named(name)) throw std::runtime_error("--password " + name + ": there is no such account");
    box.passwords[name] = password;
  }
}

void prepare(emulator::box_state& box, const emulator::options& given) {
  bool first = true;
  for (const auto& [name, token] : given.accounts) {
    const emulator::user account = box.open_account(name, token);
    if (first && given.demo) emulator::demo_fill(box, account);
    first = false;
  }
  set_passwords(box, given);
  for (const std::string& file : given.apps) {
    load_json(file, [&](const json_t* rows) { return box.apps.add(rows); });
  }
  if (!given.faults.empty()) load_json(given.faults, [&](const json_t* rows) { return box.faults.add(rows); });
}

emulator::response answer(emulator::box_state& box, emulator::request& in) {
  auto controlled = emulator::control_answer(box, in);
  return controlled ? std::move(*controlled) : emulator::router_answer(box, in);
}

void serve(const emulator::options& given, const sigset_t& ending) {
  emulator::box_state box(given.data, given.set, given.journal, !given.quiet);
  prepare(box, given);
  emulator::server_options how{
      .address = given.listen, .idle_timeout_s = given.set.idle_timeout_s, .identity = nullptr};
  if (!given.certificate.empty()) how.identity = emulator::tls_identity_load(given.certificate, given.key);
  emulator::server server(std::move(how), [&box](emulator::request& in) { return answer(box, in); });
  // The one line on standard output; whoever started us waits for it and reads the port.
  std::printf("listening on %s\n", server.address().c_str());
  std::fflush(stdout);
  // A signal handler could do next to nothing; a thread of its own that waits for the signal can do all.
  std::thread waiter([&] {
    int signal_number = 0;
    sigwait(&ending, &signal_number);
    server.stop();
  });
  server.run();
  waiter.join();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    int exit_code = 0;
    const auto given = emulator::options_parse(argc, argv, exit_code);
    if (!given) return exit_code;
    const sigset_t ending = block_signals();
    serve(*given, ending);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tarvex-box-emulator: %s\n", error.what());
    return 1;
  }
}
