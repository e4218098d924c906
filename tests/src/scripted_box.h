/// \file
/// A Box that answers from a script and keeps what it was asked, in place of the REST client's requests; and the clock
/// and the sleeps of the plug-in, recorded instead of taken. One of them for the test program.
#pragma once

#include <sys/time.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// One answer of the script.
struct Answer {
  int status = 200;
  std::string body = {};  ///< JSON for a document; empty: none
  std::vector<std::pair<std::string, std::string>> headers = {};
  enum {
    arrives,
    may_be_retried,
    is_final
  } transport = arrives;  ///< how it goes; what has a body breaks off behind it
};

/// An answer with this status, body and Retry-After header; exchanges that break off.
Answer code(int status, const std::string& body = "", const char* retry_after = nullptr);
inline const Answer cut = {.transport = Answer::may_be_retried};
inline const Answer dead = {.transport = Answer::is_final};

/// What went out: "METHOD URL?key=value&key", headers as "Key: value", and the body as its writer had it.
struct Sent {
  std::string line;
  std::vector<std::string> headers;
  std::string body;
  long timeout_ms = 0;
  std::string target;  ///< "OFFSET+LENGTH" of a download into the operation
};

struct ScriptedBox {
  std::deque<Answer> answers;
  std::function<Answer(const Sent&)> responder = {};  ///< answers instead, on the thread of each request
  std::vector<Sent> sent;
  std::vector<std::string> waits;  ///< "SECONDS.NANOSECONDS"
  timeval now{.tv_sec = 1600000000, .tv_usec = 0};
  bool real_time = false;
  std::string user_home;             ///< home directory of the password entry
  std::deque<int> lock_errors = {};  ///< errno of the next calls to fcntl; 0: the call is made
  int failing_fstats = 0;            ///< so many calls to fstat fail, once the errors of locks are over

  /// Guards `sent` and `waits` while requests go side by side.
  static std::mutex& mutex();

  void expect(std::initializer_list<Answer> more) { answers.insert(answers.end(), more); }
  /// The lines of all requests, and forgets them.
  std::vector<std::string> take_lines();
  /// Waits that were not the spacing of requests.
  std::vector<std::string> take_waits();
};

extern ScriptedBox box_script;

/// JSON of an item and of a page of a listing.
std::string item_json(const std::string& type, const std::string& id, const std::string& name,
                      const std::string& parent = "0", const std::string& more = "");
std::string page_json(const std::vector<std::string>& items, const std::string& marker = "null");
/// The redirect to a file's content.
Answer redirect_answer(const std::string& location = "https://dl.box.com/f");
