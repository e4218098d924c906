// Direct uploads and downloads.
#include <gtest/gtest.h>

#include "box_process.h"

namespace emulator_test {
namespace {

constexpr const char* CONTENT = "/api/2.0/files/content";

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
    const std::string url = box_.send("GET", "/2.0/files/" + id + "/content").header("Location");
    return url.substr(url.find("/d/"));
  };
  const std::string old = path_of();
  ASSERT_EQ(
      box_.send("POST", "/api/2.0/files/" + id + "/content", form("{}", "newer"), form_type()).at("entries.0.etag"),
      "1");
  EXPECT_EQ(box_.fetch(id).body, "newer");
  EXPECT_EQ(box_.client("").send("GET", old).body, "old");
  EXPECT_EQ(box_.client("bad").send("HEAD", old).header("Content-Length"), "3") << "a token there does no harm";
  box_.set(R"({"download_lifetime_s":0,"download_host":"localhost"})");
  const reply redirect = box_.send("GET", "/2.0/files/" + id + "/content");
  EXPECT_TRUE(redirect.header("Location").starts_with("http://localhost:" + std::to_string(box_.port()) + "/d/"));
  const reply expired = box_.client("").send("GET", path_of());
  EXPECT_EQ(expired.status, 404);
  EXPECT_EQ(expired.header("Content-Type"), "text/html");
}

TEST_F(Transfer, UploadsAreTakenAsClientsWriteThem) {
  const std::string bytes = "\r\n--edg\r\n--" + sample(70000) + "\r\n--edg";
  const std::string attributes = R"({"name":"f","parent":{"id":"0"},"content_modified_at":"2017-04-08T00:58:08Z"})";
  header_list chunked = form_type();
  chunked.emplace_back("Transfer-Encoding", "chunked");
  chunked.emplace_back("Content-MD5", sha1_hex(bytes));
  const reply made = box_.send("POST", std::string(CONTENT) + "/?fields=size,sha1,content_modified_at",
                               form(attributes, bytes), chunked);
  ASSERT_EQ(made.status, 201) << made.body;
  EXPECT_EQ(made.at("total_count"), "1");
  EXPECT_EQ(made.at("entries.0.size"), std::to_string(bytes.size()));
  EXPECT_EQ(made.at("entries.0.sha1"), sha1_hex(bytes));
  EXPECT_EQ(made.at("entries.0.content_modified_at"), "2017-04-07T16:58:08-08:00");
  EXPECT_TRUE(box_.fetch(made.at("entries.0.id")).body == bytes);
}

TEST_F(Transfer, BoundaryMayFallAcrossPieces) {
  header_list chunked = form_type();
  chunked.emplace_back("Transfer-Encoding", "chunked");
  for (std::size_t size = 0; size < 1000; size += 5) {
    const std::string bytes = sample(size);
    const std::string attributes = R"({"name":")" + std::to_string(1000 + size) + R"(","parent":{"id":"0"}})";
    const reply made = box_.send("POST", CONTENT, form(attributes, bytes), chunked);
    ASSERT_EQ(made.at("entries.0.sha1"), sha1_hex(bytes)) << size << made.body;
  }
}

TEST_F(Transfer, RefusedUploadsLeaveNothing) {
  const auto attributes = [](const std::string& name) { return R"({"name":")" + name + R"(","parent":{"id":"0"}})"; };
  const std::string good = form(attributes("f"), "x");
  const std::string file_first =
      "--edge\r\nContent-Disposition: form-data; name=\"file\"; filename=\"f\"\r\n\r\nx\r\n" + good;
  header_list wrong_digest = form_type();
  wrong_digest.emplace_back("Content-MD5", sha1_hex("y"));
  (void)box_.file("0", "taken", "12345");
  (void)box_.folder("0", "folder");
  struct row {
    const char* name;
    std::string body;
    header_list headers;
    int status;
    const char* code;
  };
  const std::vector<row> rows = {
      {"file first", file_first, form_type(), 400, "metadata_after_file_contents"},
      {"cut short", good.substr(0, good.size() - 12), form_type(), 400, "bad_request"},
      {"no file", good.substr(0, good.rfind("--edge\r\n")) + "--edge--\r\n", form_type(), 400, "bad_request"},
      {"no attributes", "--edge--\r\n", form_type(), 400, "bad_request"},
      {"no boundary", good, {{"Content-Type", "multipart/form-data"}}, 400, "bad_request"},
      {"digest", good, wrong_digest, 400, "bad_digest"},
      {"name", form(attributes("a/b"), "x"), form_type(), 400, "item_name_invalid"},
      {"parent", form(R"({"name":"f","parent":{"id":"77"}})", "x"), form_type(), 404, "not_found"},
      {"time", form(R"({"name":"f","parent":{"id":"0"},"content_created_at":"yesterday"})", "x"), form_type(), 400,
       "bad_request"},
      {"taken", form(attributes("TAKEN"), "x"), form_type(), 409, "item_name_in_use"},
      {"taken by a folder", form(attributes("folder"), "x"), form_type(), 409, "item_name_in_use"},
      {"too large", form(attributes("f"), sample(100001)), form_type(), 403, "file_size_limit_exceeded"},
  };
  for (const row& each : rows) {
    const reply answer = box_.send("POST", CONTENT, each.body, each.headers);
    EXPECT_EQ(answer.status, each.status) << each.name << answer.body;
    EXPECT_EQ(answer.at("code"), each.code) << each.name;
    if (std::string(each.name) == "taken") {
      EXPECT_EQ(answer.at("context_info.conflicts.sha1"), sha1_hex("12345"));
      EXPECT_NE(answer.at("context_info.conflicts.file_version.id"), "");
    }
  }
  EXPECT_EQ(box_.send("GET", "/2.0/users/me").at("space_used"), "5");
  EXPECT_EQ(box_.send("GET", "/2.0/folders/0/items").at("total_count"), "2");
}

TEST_F(Transfer, StorageIsCountedAndEnds) {
  const auto send = [&](const std::string& name, std::size_t size) {
    return box_.send("POST", CONTENT, form(R"({"name":")" + name + R"(","parent":{"id":"0"}})", sample(size)),
                     form_type());
  };
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(send(name, 99999).status, 201);
  EXPECT_EQ(send("d", 4).at("code"), "storage_limit_exceeded");
  EXPECT_EQ(send("d", 3).status, 201);
  const std::string id = box_.send("GET", "/2.0/folders/0/items?fields=name").at("entries.0.id");
  ASSERT_EQ(box_.send("DELETE", "/2.0/files/" + id).status, 204);
  EXPECT_EQ(send("e", 1).status, 403) << "the trash counts";
  ASSERT_EQ(box_.send("DELETE", "/2.0/files/" + id + "/trash").status, 204);
  EXPECT_EQ(send("e", 1).status, 201);
}

TEST_F(Transfer, PreflightTellsBeforehand) {
  (void)box_.file("0", "taken", "x");
  const auto ask = [&](const std::string& name, const std::string& size) {
    return box_.send("OPTIONS", "/2.0/files/content/",
                     R"({"name":")" + name + R"(","parent":{"id":"0"},"size":)" + size + "}");
  };
  EXPECT_EQ(ask("free", "100000").at("upload_url"), "http://127.0.0.1:" + std::to_string(box_.port()) + CONTENT);
  EXPECT_EQ(ask("free", "100001").at("code"), "file_size_limit_exceeded");
  EXPECT_NE(ask("taken", "1").at("context_info.conflicts.id"), "");
}

}  // namespace
}  // namespace emulator_test
