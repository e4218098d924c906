// Direct uploads and downloads.
#include "box_process.h"

#include <gtest/gtest.h>

namespace emulator_test {
namespace {

constexpr const char* CONTENT = "POST /api/2.0/files/content";

class Transfer : public testing::Test {
 protected:
  box_process box_{{"--set", "max_upload_size=100000", "--set", "space_amount=300000"}};
};

TEST_F(Transfer, RangesAreExact) {
  const std::string bytes = sample(1000);
  const std::string id = box_.file("0", "f", bytes);
  struct row {
    const char* range;
    int status;
    std::size_t first;
    std::size_t count;
    const char* content_range;
  };
  for (const row& each :
       {row{"", 200, 0, 1000, ""}, row{"bytes=0-0", 206, 0, 1, "bytes 0-0/1000"},
        row{"bytes=5-9", 206, 5, 5, "bytes 5-9/1000"}, row{"bytes=999-", 206, 999, 1, "bytes 999-999/1000"},
        row{"bytes=0-99999", 206, 0, 1000, "bytes 0-999/1000"}, row{"bytes=-3", 206, 997, 3, "bytes 997-999/1000"},
        row{"bytes=1000-", 416, 0, 0, "bytes */1000"}, row{"bytes=-0", 416, 0, 0, "bytes */1000"},
        row{"bytes=9-5", 200, 0, 1000, ""}, row{"bytes=0-1,5-6", 200, 0, 1000, ""},
        row{"lines=1-2", 200, 0, 1000, ""}}) {
    const reply answer = box_.fetch(id, each.range);
    EXPECT_EQ(answer.status, each.status) << each.range;
    EXPECT_EQ(answer.header("Content-Range"), each.content_range) << each.range;
    EXPECT_TRUE(each.status == 416 || answer.body == bytes.substr(each.first, each.count)) << each.range;
  }
  const std::string empty = box_.file("0", "empty", "");
  EXPECT_EQ(box_.fetch(empty).body, "");
  EXPECT_EQ(box_.fetch(empty).status, 200);
  EXPECT_EQ(box_.fetch(empty, "bytes=0-").status, 416);
}

TEST_F(Transfer, DownloadUrlsBelongToOneVersionAndEnd) {
  const std::string id = box_.file("0", "f", "old");
  const auto path_of = [&] {
    const std::string url = box_.send("GET /2.0/files/" + id + "/content").header("Location");
    return url.substr(url.find("/d/"));
  };
  const std::string old = path_of();
  box_.send("POST /api/2.0/files/" + id + "/content", form("{}", "newer"), form_type()).expect("entries.0.etag=1");
  EXPECT_EQ(box_.fetch(id).body, "newer");
  EXPECT_EQ(box_.send("GET " + old, "", {}, "").body, "old");
  EXPECT_EQ(box_.send("HEAD " + old, "", {}, "bad").header("Content-Length"), "3") << "a token there does no harm";
  box_.set(R"({"download_lifetime_s":0,"download_host":"localhost"})");
  const reply redirect = box_.send("GET /2.0/files/" + id + "/content");
  EXPECT_TRUE(redirect.header("Location").starts_with("http://localhost:" + std::to_string(box_.port()) + "/d/"));
  const reply expired = box_.send("GET " + path_of(), "", {}, "");
  EXPECT_EQ(expired.status, 404);
  EXPECT_EQ(expired.header("Content-Type"), "text/html");
}

TEST_F(Transfer, UploadsAreTakenAsClientsWriteThem) {
  const std::string bytes = "\r\n--edg\r\n--" + sample(70000) + "\r\n--edg";
  const std::string attributes = named("f", "0", R"(,"content_modified_at":"2017-04-08T00:58:08Z")");
  const reply made = box_.send(std::string(CONTENT) + "/?fields=size,sha1,content_modified_at", form(attributes, bytes),
                               form_type({{"Transfer-Encoding", "chunked"}, {"Content-MD5", sha1_hex(bytes)}}));
  ASSERT_EQ(made.status, 201) << made.body;
  made.expect("total_count=1|entries.0.size=" + std::to_string(bytes.size()) + "|entries.0.sha1=" + sha1_hex(bytes) +
              "|entries.0.content_modified_at=2017-04-07T16:58:08-08:00");
  EXPECT_TRUE(box_.fetch(made.at("entries.0.id")).body == bytes);
}

TEST_F(Transfer, BoundaryMayFallAcrossPieces) {
  for (std::size_t size = 0; size < 1000; size += 5) {
    const std::string bytes = sample(size);
    const reply made = box_.upload(named(std::to_string(1000 + size)), bytes, {{"Transfer-Encoding", "chunked"}});
    ASSERT_EQ(made.at("entries.0.sha1"), sha1_hex(bytes)) << size << made.body;
  }
}

TEST_F(Transfer, RefusedUploadsLeaveNothing) {
  const std::string good = form(named("f"), "x");
  const std::string file_first =
      "--edge\r\nContent-Disposition: form-data; name=\"file\"; filename=\"f\"\r\n\r\nx\r\n" + good;
  (void)box_.file("0", "taken", "12345");
  (void)box_.folder("0", "folder");
  const auto row = [](const char* name, const std::string& body, int status, const std::string& code,
                      const header_list& headers = form_type()) {
    return exchange{name, CONTENT, body, status, "code=" + code, headers};
  };
  (void)box_.check({
      row("file first", file_first, 400, "metadata_after_file_contents"),
      row("cut short", good.substr(0, good.size() - 12), 400, "bad_request"),
      row("no file", good.substr(0, good.rfind("--edge\r\n")) + "--edge--\r\n", 400, "bad_request"),
      row("no attributes", "--edge--\r\n", 400, "bad_request"),
      row("no boundary", good, 400, "bad_request", {{"Content-Type", "multipart/form-data"}}),
      row("digest", good, 400, "bad_digest", form_type({{"Content-MD5", sha1_hex("y")}})),
      row("name", form(named("a/b"), "x"), 400, "item_name_invalid"),
      row("parent", form(named("f", "77"), "x"), 404, "not_found"),
      row("time", form(named("f", "0", R"(,"content_created_at":"yesterday")"), "x"), 400, "bad_request"),
      row("taken", form(named("TAKEN"), "x"), 409, "item_name_in_use|context_info.conflicts.sha1=" + sha1_hex("12345")),
      row("taken by a folder", form(named("folder"), "x"), 409, "item_name_in_use"),
      row("too large", form(named("f"), sample(100001)), 403, "file_size_limit_exceeded"),
      {"nothing used", "GET /2.0/users/me", "", 200, "space_used=5"},
      {"nothing new", "GET /2.0/folders/0/items", "", 200, "total_count=2"},
  });
  EXPECT_NE(box_.upload(named("taken"), "x").at("context_info.conflicts.file_version.id"), "");
}

TEST_F(Transfer, StorageIsCountedAndEnds) {
  const auto send = [&](const std::string& name, std::size_t size) { return box_.upload(named(name), sample(size)); };
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(send(name, 99999).status, 201);
  EXPECT_EQ(send("d", 4).at("code"), "storage_limit_exceeded");
  EXPECT_EQ(send("d", 3).status, 201);
  const std::string id = box_.send("GET /2.0/folders/0/items?fields=name").at("entries.0.id");
  (void)box_.check({{"delete", "DELETE /2.0/files/" + id, "", 204}});
  EXPECT_EQ(send("e", 1).status, 403) << "the trash counts";
  (void)box_.check({{"purge", "DELETE /2.0/files/" + id + "/trash", "", 204}});
  EXPECT_EQ(send("e", 1).status, 201);
}

TEST_F(Transfer, PreflightTellsBeforehand) {
  (void)box_.file("0", "taken", "x");
  const auto ask = [&](const std::string& name, const std::string& size) {
    return box_.send("OPTIONS /2.0/files/content/", named(name, "0", ",\"size\":" + size));
  };
  EXPECT_EQ(ask("free", "100000").at("upload_url"), box_.origin() + "/api/2.0/files/content");
  EXPECT_EQ(ask("free", "100001").at("code"), "file_size_limit_exceeded");
  EXPECT_NE(ask("taken", "1").at("context_info.conflicts.id"), "");
}

}  // namespace
}  // namespace emulator_test
