#include "never_destroyed.h"
#include "tarvex_common.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::common {
namespace {

constexpr size_t MAX_LEVELS = 32;

/// What a value of the variable asks for.
struct debug_settings {
  unsigned levels = 0;
  unsigned timestamp_levels = 0;
  std::string output;  // empty: standard error
  bool thread_ids = false;
};

/// The parts of `text` between separators.
std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (size_t end; (end = text.find(separator)) != text.npos; text.remove_prefix(end + 1)) {
    parts.push_back(text.substr(0, end));
  }
  parts.push_back(text);
  return parts;
}

/// One module's level names, lowest bit first.
class level_set {
 public:
  explicit level_set(std::string_view names) : names_(split(names, ' ')) {
    std::erase(names_, std::string_view());
    names_.resize(std::min(names_.size(), MAX_LEVELS));
  }

  unsigned all() const { return names_.size() == MAX_LEVELS ? ~0u : (1u << names_.size()) - 1; }

  /// Reads LEVELS. Bits beyond the named levels are dropped.
  std::optional<unsigned> parse(std::string_view text) const {
    if (const auto number = parse_number(text)) return *number & all();
    unsigned levels = 0;
    for (const auto name : split(text, '|')) {
      const unsigned found = find(name);
      if (found == 0) return std::nullopt;
      levels |= found;
    }
    return levels;
  }

 private:
  static bool equal_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
  }

  static std::optional<unsigned> parse_number(std::string_view text) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    unsigned number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
  }

  /// The bits of one name; none for an unknown one.
  unsigned find(std::string_view name) const {
    if (equal_ignoring_case(name, "ALL")) return all();
    for (size_t i = 0; i < names_.size(); ++i) {
      if (equal_ignoring_case(name, names_[i])) return 1u << i;
    }
    return 0;
  }

  std::vector<std::string_view> names_;
};

/// Reads SWITCHES. \return what is wrong with them; empty when nothing is.
std::string parse_switches(std::string_view text, const level_set& known, debug_settings& settings) {
  for (; !text.empty(); text.remove_prefix(1)) {
    if (text.front() == 'i') {
      settings.thread_ids = true;
    } else if (text.starts_with("t=")) {
      const auto levels = known.parse(text.substr(2));
      if (!levels) return "no known levels after \"t=\"";
      settings.timestamp_levels = *levels;
      return "";
    } else if (text.front() == 't') {
      settings.timestamp_levels = known.all();
    } else {
      return "unknown switch \"" + std::string(1, text.front()) + "\" (known: t, i, t=LEVELS)";
    }
  }
  return "";
}

std::string with_process_id(std::string_view output) {
  std::string name(output);
  const std::string id = std::to_string(getpid());
  for (size_t at = 0; (at = name.find("%p", at)) != name.npos; at += id.size()) name.replace(at, 2, id);
  return name;
}

/// Reads LEVELS[,OUTPUT[,SWITCHES]]. \return what is wrong with it; empty when nothing is.
std::string parse_value(std::string_view value, std::string_view level_names, debug_settings& settings) {
  const level_set known(level_names);
  const auto parts = split(value, ',');
  if (parts.size() > 3) return "more than three parts";
  const auto levels = known.parse(parts[0]);
  if (!levels) {
    return "unknown level in \"" + std::string(parts[0]) + "\" (known: ALL " + std::string(level_names) + ")";
  }
  settings.levels = *levels;
  if (parts.size() > 1) settings.output = with_process_id(parts[1]);
  return parts.size() > 2 ? parse_switches(parts[2], known, settings) : "";
}

FILE* open_output(const std::string& name) {
  const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0600);
  if (fd < 0) return nullptr;
  FILE* file = fdopen(fd, "a");
  if (file == nullptr) {
    const int reason = errno;
    close(fd);
    errno = reason;
    return nullptr;
  }
  setvbuf(file, nullptr, _IOLBF, 0);  // whole lines, since several processes may append
  return file;
}

/// Fills the handle. \return what went wrong; empty when nothing did.
std::string apply(const debug_settings& settings, tarvex_debug_handle_t& handle) {
  if (settings.levels == 0) return "";
  FILE* file = settings.output.empty() ? stderr : open_output(settings.output);
  if (file == nullptr) return "cannot open " + settings.output + ": " + std::strerror(errno);
  handle = {.levels = settings.levels,
            .timestamp_levels = settings.timestamp_levels,
            .file = file,
            .thread_ids = settings.thread_ids,
            .using_file = file != stderr};
  return "";
}

struct complaint_list {
  std::mutex mutex;
  std::vector<std::string> made;
};

constinit never_destroyed<complaint_list> complaints;

/// A module may be activated many times; one and the same mistake is told once.
void complain(const std::string& env_name, const std::string& value, const std::string& problem) {
  std::string complaint = env_name + "=" + value + ": " + problem + "; no debug log is written\n";
  const std::lock_guard lock(complaints.value.mutex);
  auto& made = complaints.value.made;
  if (std::find(made.begin(), made.end(), complaint) != made.end()) return;
  std::fputs(complaint.c_str(), stderr);
  made.push_back(std::move(complaint));
}

void init(const char* env_name, const char* level_names, tarvex_debug_handle_t& handle) {
  const char* value = std::getenv(env_name);
  if (value == nullptr || *value == '\0') return;
  debug_settings settings;
  std::string problem = parse_value(value, level_names == nullptr ? "" : level_names, settings);
  if (problem.empty()) problem = apply(settings, handle);
  if (!problem.empty()) complain(env_name, value, problem);
}

}  // namespace
}  // namespace tarvex::common

extern "C" void tarvex_debug_init(const char* env_name, const char* level_names, tarvex_debug_handle_t* handle) try {
  if (handle == nullptr) return;
  *handle = {};
  if (env_name != nullptr) tarvex::common::init(env_name, level_names, *handle);
} catch (const std::exception&) {
  // No memory for the text of a log: none is written.
}
