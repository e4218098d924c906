// Chunked uploads: sessions, parts, commits.
#include "box_process.h"

#include <gtest/gtest.h>

namespace emulator_test {
namespace {

constexpr std::size_t PART = 1000;
const std::string SESSIONS = "/api/2.0/files/upload_sessions";

class UploadSession : public testing::Test {
 protected:
  [[nodiscard]] reply create(const std::string& name, std::size_t size) const {
    return box().send("POST " + SESSIONS,
                      R"({"folder_id":"0","file_size":)" + std::to_string(size) + R"(,"file_name":")" + name + "\"}");
  }

  [[nodiscard]] exchange part(const char* name, const std::string& id, const std::string& bytes,
                              const std::string& content_range, const std::string& digest, int status = 200,
                              const std::string& members = {}) const {
    header_list headers = {{"Content-Type", "application/octet-stream"}};
    if (!content_range.empty()) headers.emplace_back("Content-Range", content_range);
    if (!digest.empty()) headers.emplace_back("digest", digest);
    return {name, "PUT " + SESSIONS + "/" + id, bytes, status, members, headers};
  }

  [[nodiscard]] reply put(const std::string& id, const std::string& bytes, std::size_t first, std::size_t count) const {
    const std::string own = bytes.substr(first, count);
    return box().check({part("part", id, own, range(first, count, bytes.size()), digest_header(own))});
  }

  static std::string range(std::size_t first, std::size_t count, std::size_t total) {
    return "bytes " + std::to_string(first) + "-" + std::to_string(first + count - 1) + "/" + std::to_string(total);
  }

  /// Puts all parts and gives back the list for the commit.
  [[nodiscard]] std::string put_all(const std::string& id, const std::string& bytes, bool backwards = false) const {
    std::vector<std::string> parts((bytes.size() + PART - 1) / PART);
    for (std::size_t i = 0; i < parts.size(); ++i) {
      const std::size_t index = backwards ? parts.size() - 1 - i : i;
      parts[index] = put(id, bytes, index * PART, std::min(PART, bytes.size() - index * PART)).at("part");
    }
    std::string list;
    for (const std::string& part : parts) list += (list.empty() ? "" : ",") + part;
    return list;
  }

  [[nodiscard]] reply commit(const std::string& id, const std::string& parts, const std::string& bytes) const {
    return box().send("POST " + SESSIONS + "/" + id + "/commit?fields=size,sha1,name,content_modified_at",
                      R"({"attributes":{"content_modified_at":"2017-04-08T00:58:08Z"},"parts":[)" + parts + "]}",
                      {{"Digest", digest_header(bytes)}});
  }

  [[nodiscard]] const box_process& box() const { return *box_; }

  static std::vector<std::string> arguments() {
    return {"--set", "part_size=1000", "--set", "chunked_minimum=1500", "--set", "max_upload_size=100000"};
  }

  temporary_directory directory_;
  std::unique_ptr<box_process> box_ = std::make_unique<box_process>(directory_.path(), arguments());
};

TEST_F(UploadSession, StoresWhatWasPut) {
  for (const std::size_t size : {1500U, 2000U, 2001U, 10999U}) {
    for (const bool backwards : {false, true}) {
      const std::string bytes = sample(size);
      const std::string name = "f" + std::to_string(size) + (backwards ? "b" : "");
      const reply session = create(name, size);
      ASSERT_EQ(session.status, 201) << session.body;
      const std::string id = session.at("id");
      session.expect("num_parts_processed=0|total_parts=" + std::to_string((size + 999) / 1000) +
                     "|session_endpoints.commit=" + box().origin() + SESSIONS + "/" + id + "/commit");
      EXPECT_TRUE(session.at("session_expires_at").ends_with("Z"));
      const reply made = commit(id, put_all(id, bytes, backwards), bytes);
      ASSERT_EQ(made.status, 201) << made.body;
      made.expect("entries.0.content_modified_at=2017-04-07T16:58:08-08:00|entries.0.sha1=" + sha1_hex(bytes));
      EXPECT_TRUE(box().fetch(made.at("entries.0.id")).body == bytes);
      commit(id, "", bytes).expect("code=session_expired");
    }
  }
}

TEST_F(UploadSession, CreationIsChecked) {
  (void)box().file("0", "taken", "x");
  const auto row = [](const std::string& members, int status, const std::string& code) {
    return exchange{"", "POST " + SESSIONS, "{" + members + "}", status, "code=" + code};
  };
  const std::string in = R"("folder_id":"0",)";
  (void)box().check({
      row(R"("file_size":2000,"file_name":"n")", 400, "missing_destination"),
      row(R"("folder_id":"x","file_size":2000,"file_name":"n")", 400, "invalid_folder_id"),
      row(R"("folder_id":"77","file_size":2000,"file_name":"n")", 404, "not_found"),
      row(in + R"("file_name":"n")", 400, "missing_file_size"),
      row(in + R"("file_size":-1,"file_name":"n")", 400, "invalid_file_size"),
      row(in + R"("file_size":1499,"file_name":"n")", 400, "file_size_too_small"),
      row(in + R"("file_size":100001,"file_name":"n")", 403, "file_size_limit_exceeded"),
      row(in + R"("file_size":2000)", 400, "missing_file_name"),
      row(in + R"("file_size":2000,"file_name":"a/b")", 400, "item_name_invalid"),
      row(in + R"("file_size":2000,"file_name":"Taken")", 409, "item_name_in_use"),
  });
  create("taken", 2000).expect("context_info.conflicts.name=taken");
  box().set(R"({"session_conflict":true})");
  const std::string first = create("n", 2000).at("id");
  create("n", 2000).expect("context_info.session.id=" + first);
}

TEST_F(UploadSession, PartsAreChecked) {
  const std::string bytes = sample(2500);
  const std::string id = create("f", bytes.size()).at("id");
  (void)put(id, bytes, 1000, 1000);
  const std::string first = bytes.substr(0, 1000);
  const std::string second = bytes.substr(1000, 1000);
  const std::string short_one = first.substr(1);
  const std::string good = digest_header(first);
  const std::string place = range(0, 1000, 2500);
  const std::string unfit = "code=range_not_satisfiable";
  const std::string bad = "code=bad_request";
  const std::string own = " " + SESSIONS + "/" + id;
  (void)box().check({
      part("there", id, second, range(1000, 1000, 2500), digest_header(second), 416,
           "code=range_overlaps_existing_part"),
      part("no multiple", id, first, range(500, 1000, 2500), good, 416, unfit),
      part("other total", id, first, range(0, 1000, 2501), good, 416, unfit),
      part("short part", id, short_one, range(0, 999, 2500), digest_header(short_one), 416, unfit),
      part("body and range differ", id, first + "x", place, good, 416, unfit),
      part("behind the end", id, first, range(3000, 1000, 2500), good, 416, unfit),
      part("digest of other bytes", id, first, place, digest_header("x"), 412, "code=precondition_failed"),
      part("no digest", id, first, place, "", 400, bad),
      part("digest not base64", id, first, place, "sha=?", 400, bad),
      part("no range", id, first, "", good, 400, bad),
      part("range is nonsense", id, first, "bytes=0-999/2500", good, 400, bad),
      part("no session id", "x", first, place, good, 400, "code=invalid_upload_session_id"),
      part("no such session", std::string(32, 'A'), first, place, good, 404),
      part("good after all refusals", id, first, place, "SHA=" + good.substr(4)),
      {"listed", "GET" + own + "/parts?limit=1&offset=1", "", 200,
       "total_count=2|entries.0.offset=1000|entries.0.sha1=" + sha1_hex(second)},
      {"counted", "GET" + own, "", 200, "num_parts_processed=2"},
      {"abort", "DELETE" + own, "", 204},
      part("aborted", id, first, place, good, 410),
  });
}

TEST_F(UploadSession, CommitsAreChecked) {
  const std::string bytes = sample(2500);
  const std::string id = create("f", bytes.size()).at("id");
  const std::string first = put(id, bytes, 0, 1000).at("part");
  commit(id, first, bytes).expect("code=parts_mismatch");
  const std::string second = put(id, bytes, 1000, 1000).at("part");
  const std::string all = first + "," + second + "," + put(id, bytes, 2000, 500).at("part");
  commit(id, first + "," + second, bytes).expect("code=parts_mismatch");
  commit(id, all + R"(,{"part_id":"00000000","offset":0,"size":1})", bytes).expect("code=parts_mismatch");
  commit(id, all, "other bytes").expect("code=digest_mismatch");
  EXPECT_EQ(box().send("POST " + SESSIONS + "/" + id + "/commit", "{}", {{"Digest", digest_header(bytes)}}).status,
            400);
  const std::string taken = box().file("0", "F", "x");
  commit(id, all, bytes).expect("code=item_name_in_use");
  ASSERT_EQ(box().send("DELETE /2.0/files/" + taken).status, 204);
  EXPECT_EQ(commit(id, all, bytes).status, 201) << "the session has outlived all refusals";
}

TEST_F(UploadSession, CommitMayHaveToWait) {
  box().set(R"({"commit_pending_count":2,"commit_retry_after_s":7})");
  const std::string bytes = sample(1500);
  const std::string id = create("f", bytes.size()).at("id");
  const std::string parts = put_all(id, bytes);
  for (int i = 0; i < 2; ++i) {
    const reply waiting = commit(id, parts, bytes);
    EXPECT_EQ(waiting.status, 202);
    EXPECT_EQ(waiting.header("Retry-After"), "7");
    EXPECT_EQ(waiting.body, "");
  }
  EXPECT_EQ(commit(id, parts, bytes).status, 201);
}

TEST_F(UploadSession, SurvivesARestart) {
  const std::string bytes = sample(2500);
  const std::string id = create("f", bytes.size()).at("id");
  const std::string first = put(id, bytes, 0, 1000).at("part");
  box_.reset();
  box_ = std::make_unique<box_process>(directory_.path(), arguments());
  const std::string rest = put(id, bytes, 1000, 1000).at("part") + "," + put(id, bytes, 2000, 500).at("part");
  const reply made = commit(id, first + "," + rest, bytes);
  ASSERT_EQ(made.status, 201) << made.body;
  EXPECT_TRUE(box().fetch(made.at("entries.0.id")).body == bytes);
}

TEST_F(UploadSession, PutsANewVersion) {
  const std::string file = box().file("0", "f", "old");
  const std::string bytes = sample(1500);
  const reply session = box().send("POST /api/2.0/files/" + file + "/upload_sessions", R"({"file_size":1500})");
  const std::string id = session.at("id");
  const reply made = commit(id, put_all(id, bytes), bytes);
  made.expect("entries.0.id=" + file + "|entries.0.name=f|entries.0.etag=1");
  EXPECT_TRUE(box().fetch(file).body == bytes);
}

}  // namespace
}  // namespace emulator_test
