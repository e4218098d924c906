#include "parts_fixture.h"

#include "digest.h"
#include "json_ptr.h"

#include <algorithm>
#include <cstdio>

using namespace std::chrono_literals;

namespace {

tarvex::box::sha1_digest sha1_of(const std::string& text) {
  tarvex::box::sha1_digest digest{};
  EXPECT_TRUE(tarvex::box::sha1_of(text.data(), text.size(), digest));
  return digest;
}

std::string md5_of(const std::string& text) {
  MD5_CTX context{};
  tarvex::box::md5_digest digest{};
  EXPECT_TRUE(tarvex::box::md5_begin(context) && tarvex::box::md5_update(context, text.data(), text.size()) &&
              tarvex::box::md5_finish(context, digest));
  return tarvex::box::hex_text(digest);
}

bool has_digest_of(const Sent& sent, const std::string& text) {
  const std::string header = "digest: " + tarvex::box::digest_header(sha1_of(text));
  return std::find(sent.headers.begin(), sent.headers.end(), header) != sent.headers.end();
}

/// Number of the part that a request sends.
int part_of(const Sent& sent) {
  for (const std::string& header : sent.headers) {
    int first = -1, last = -1, total = -1;
    if (std::sscanf(header.c_str(), "Content-Range: bytes %d-%d/%d", &first, &last, &total) != 3) continue;
    EXPECT_EQ(last - first + 1, static_cast<int>(sent.body.size()));
    EXPECT_EQ(first % PART, 0);
    return first / PART;
  }
  ADD_FAILURE() << "a part without a range";
  return -1;
}

}  // namespace

Answer PartBox::respond(const Sent& sent) {
  std::unique_lock lock(mutex_);
  const std::string& line = sent.line;
  const std::string session = std::string(UPLOAD) + "/upload_sessions/S";
  if (line == "PUT " + session) {
    lock.unlock();
    return put(sent);
  }
  if (line.starts_with("GET " + session + "/parts?offset=")) {
    ++listings;
    lock.unlock();
    return list(sent);
  }
  if (line.starts_with("POST " + session + "/commit")) return commit(sent);
  if (line.ends_with("/metadata/global/properties")) {
    md5 = sent.body;
    return code(201);
  }
  EXPECT_EQ(line, std::string("POST ") + UPLOAD + "/upload_sessions");
  return code(201, R"({"id":"S","part_size":4,"total_parts":6})");
}

std::vector<int> PartBox::stored_parts() {
  std::vector<int> numbers;
  for (const auto& [number, content] : parts_) numbers.push_back(number);
  return numbers;
}

std::string PartBox::record(int part) const {
  const std::string& content = parts_.at(part);
  return R"({"part_id":"P)" + std::to_string(part) + R"(","offset":)" + std::to_string(part * PART) + R"(,"size":)" +
         std::to_string(content.size()) + R"(,"sha1":")" + tarvex::box::hex_text(sha1_of(content)) + "\"}";
}

/// Lets a try wait as the test wants it.
void PartBox::wait(int part) {
  std::unique_lock lock(mutex_);
  order.push_back(part);
  most_at_once = std::max(most_at_once, ++now_);
  changed_.notify_all();
  const bool first = ++puts[part] == 1;
  if (hold_until > 0) {
    EXPECT_TRUE(changed_.wait_for(lock, 5s, [&] { return most_at_once >= hold_until; }));
    changed_.wait_for(lock, 20ms, [] { return false; });  // for one too many
  }
  if (first && waits_for.contains(part) && waits_for[part] != part) {
    EXPECT_TRUE(changed_.wait_for(lock, 5s, [&] { return parts_.contains(waits_for[part]); }));
  }
  if (before_last && part == PARTS - 1) {
    EXPECT_TRUE(changed_.wait_for(lock, 5s, [&] { return parts_.size() == PARTS - 1; }));
    changed_.wait_for(lock, 50ms, [] { return false; });  // until the last answer has arrived
    before_last();
  }
  if (others_wait_for_list && part != 0) {
    EXPECT_TRUE(changed_.wait_for(lock, 5s, [&] { return listings > 0; }));
  }
}

Answer PartBox::put(const Sent& sent) {
  const int part = part_of(sent);
  EXPECT_TRUE(has_digest_of(sent, sent.body));
  wait(part);
  const std::lock_guard lock(mutex_);
  --now_;
  auto& tries = faults[part];
  Try fate = tries.empty() ? Try{.answer = {}, .stores = true, .times = -1} : tries.front();
  if (!tries.empty() && fate.times == 1) tries.pop_front();
  if (parts_.contains(part) && fate.stores) {
    return code(416, R"({"code":"range_overlaps_existing_part"})");
  }
  if (fate.stores) parts_[part] = sent.body;
  changed_.notify_all();
  return fate.times == -1 ? code(200, R"({"part":)" + record(part) + "}") : fate.answer;
}

Answer PartBox::list(const Sent& sent) {
  if (others_wait_for_list) {
    changed_.notify_all();
    std::this_thread::sleep_for(30ms);  // for those that were allowed before
    std::unique_lock lock(mutex_);
    const size_t begun = order.size();
    changed_.wait_for(lock, 50ms, [] { return false; });
    begun_during_list += order.size() - begun;
  }
  const std::lock_guard lock(mutex_);
  if (!listing_answers.empty()) {
    const Answer answer = listing_answers.front();
    listing_answers.pop_front();
    return answer;
  }
  // In pages of two, the last part first: Box sorts by ids of its own.
  int offset = -1;
  EXPECT_EQ(std::sscanf(sent.line.c_str() + sent.line.find('?'), "?offset=%d&limit=1000", &offset), 1);
  std::string entries;
  int number = 0;
  for (auto part = parts_.rbegin(); part != parts_.rend(); ++part, ++number) {
    if (number >= offset && number < offset + 2) entries += (entries.empty() ? "" : ",") + record(part->first);
  }
  return code(200, R"({"total_count":)" + std::to_string(number) + R"(,"entries":[)" + entries + "]}");
}

Answer PartBox::commit(const Sent& sent) {
  const tarvex::box::json_ptr body(json_loads(sent.body.c_str(), 0, nullptr));
  json_t* const listed = json_object_get(body.get(), "parts");
  std::string file;
  for (size_t i = 0; i < json_array_size(listed); ++i) {
    const auto offset = json_integer_value(json_object_get(json_array_get(listed, i), "offset"));
    if (offset != static_cast<json_int_t>(file.size()) || !parts_.contains(static_cast<int>(offset) / PART)) {
      return code(400, R"({"code":"parts_mismatch"})");
    }
    file += parts_[static_cast<int>(offset) / PART];
  }
  if (!has_digest_of(sent, file)) return code(400, R"({"code":"digest_mismatch"})");
  committed = file;
  return code(201, page_json({item_json("file", "77", "n")}));
}

void PartsTest::begin() {
  session_ends();
  next();
  std::destroy_at(&box);
  std::construct_at(&box);
  data = "abcdefghijklmnopqrstuv";  // the last part is a short one
  client_breaks_off_at = -1;
  std::filesystem::remove_all(home / ".tarvex");
  framework.config["renew-creds"] = {
      R"({"access_token":"U","token_expiry":"2030-01-01T00:00:00.0+00:00","sub":"123","max_upload":200000000})"};
  box_script.responder = {};
  login();
  box_script.responder = [this](const Sent& sent) { return box.respond(sent); };
}

void PartsTest::session_ends() {
  if (session != nullptr) tarvex_i_box_destroy(std::exchange(session, nullptr));
}

std::string PartsTest::store(int from) {
  next();
  framework.write_range = {from * PART, -1};
  for (size_t at = static_cast<size_t>(from * PART); at < data.size();) {
    if (static_cast<int>(at) == client_breaks_off_at) {
      framework.blocks.push_back({"", false, true});
      break;
    }
    const size_t length = std::min<size_t>(at % 8 == 0 ? PART : PART / 2, data.size() - at);
    framework.blocks.push_back({data.substr(at, length)});
    at += length;
  }
  const bool fresh = tarvex_box_upload_state_query(&session->upload_state, "/n") == nullptr;
  return recv("/n", data.size(), fresh);
}

void PartsTest::expect_stored() {
  EXPECT_EQ(box.committed, data);
  EXPECT_EQ(box.md5, R"({"tarvex-md5":")" + md5_of(data) + "\"}");
}
