/// \file
/// A Box that keeps the parts of an upload session, and stores whose parts go side by side.
#pragma once

#include "connection_seats.h"
#include "part_bucket.h"
#include "upload_fixture.h"

#include <condition_variable>
#include <mutex>

inline constexpr int PART = 4;
inline constexpr int PARTS = 6;

/// One try to send a part.
struct Try {
  Answer answer;
  bool stores = false;
  int times = 1;  ///< 0: for ever
};

/// The upload session "S" and what comes after it. Requests may come from several threads.
class PartBox {
 public:
  std::map<int, std::deque<Try>> faults;  ///< by part
  std::deque<Answer> listing_answers;     ///< to the first lists, instead of them; a good one without a body: the list
  std::map<int, int> waits_for;           ///< a part's first try waits until the other is stored
  int hold_until = 0;                     ///< tries wait until so many are there at once
  bool others_wait_for_list = false;      ///< tries of all parts but the first wait until Box is asked for its list

  std::function<void()> before_last = {};  ///< is called when the last part alone is on its way

  std::map<int, size_t> puts;
  std::vector<int> order;  ///< of the tries
  size_t listings = 0;
  size_t begun_during_list = 0;  ///< tries
  int most_at_once = 0;
  std::string committed;  ///< the file
  std::string md5;        ///< the property

  Answer respond(const Sent& sent);
  std::vector<int> stored_parts();

 private:
  Answer put(const Sent& sent);
  void wait(int part);
  Answer list(const Sent& sent);
  Answer commit(const Sent& sent);
  std::string record(int part) const;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int, std::string> parts_;
  int now_ = 0;
};

class PartsTest : public UploadTest {
 protected:
  PartsTest() { begin(); }
  ~PartsTest() override { box_script.responder = {}; }
  /// A new login, a new Box and a new file.
  void begin();
  /// Stores the file, or goes on at a part. \return the error
  std::string store(int from = 0);
  /// That Box has the file, and the right digests of it.
  void expect_stored();
  void session_ends();

  PartBox box;
  std::string data;
  int client_breaks_off_at = -1;

 private:
  SettingScope concurrency_{tarvex_i_box_part_concurrency, 4};
};
