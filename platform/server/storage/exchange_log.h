#pragma once

#include "tarvex_exchange.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace tarvex::server {

/// What became of an operation's requests of one kind.
struct request_fate {
  unsigned sent = 0;      ///< how many went out
  int status = 0;         ///< of the last answer; 0: the last one got none
  bool doubtful = false;  ///< one of them may have been carried out, and nobody said so

  void note(const tarvex_exchange_t& exchange);
};

/// The last answer that brought a file's bytes.
struct content_heard {
  int status = 0;                 ///< 0: none came
  std::int64_t whole_bytes = -1;  ///< of the file, of which it is all or a part; -1: it did not say
};

/// What an operation's requests say of how it ended, beyond what the storage says.
struct exchange_summary {
  request_fate reads;         ///< GET with authorisation
  request_fate deletes;       ///< DELETE of what is stored
  request_fate puts;          ///< PUT of attributes
  request_fate posts;         ///< POST of a document
  request_fate upload;        ///< POST of a file's bytes
  request_fate commit;        ///< POST that puts a file's parts together
  std::string commit_digest;  ///< what that said of the whole file, as it was sent
  request_fate last;          ///< of any kind
  content_heard content;
  bool token_refused = false;  ///< one of them was answered with 401
  bool changing = false;       ///< one that may have changed something was not

  /// Whether a request went out that may have changed something.
  bool touched() const { return deletes.sent + puts.sent + posts.sent + upload.sent + commit.sent > 0; }
};

/// Whether an answer leaves open what was done: none, a server's failure, a time-out.
bool status_is_doubtful(int status);

/// Whether the same request may succeed later.
bool status_may_pass(int status);

/// Listens to the exchanges of the operation that runs, through the seam below the storage. One exists in a session's
/// process and hears all of them; the threads that make the requests call it.
class exchange_log {
 public:
  exchange_log();
  ~exchange_log();
  exchange_log(const exchange_log&) = delete;
  exchange_log& operator=(const exchange_log&) = delete;

  /// An operation begins. `touching` is called once, before its first request that may change something goes out.
  void begin(std::function<void()> touching);
  /// No more calls of `touching`.
  void end();
  exchange_summary summary() const;
  /// Whether the storage's requests are heard here at all: some were.
  bool hears() const;

  void going_out(const tarvex_exchange_t& about);
  void note(const tarvex_exchange_t& exchange);

 private:
  mutable std::mutex mutex_;
  exchange_summary summary_;        // guarded by mutex_
  std::function<void()> touching_;  // guarded by mutex_
  bool hears_ = false;              // guarded by mutex_
};

}  // namespace tarvex::server
