// The program and its HTTP: connections, bodies, several clients at once, restarts, the command line.
#include "box_process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace emulator_test {
namespace {

TEST(Server, KeepsConnectionsAndAnswersInOrder) {
  const box_process box;
  raw_connection connection(box.port());
  std::string several;
  for (int i = 0; i < 3; ++i) several += box.text("GET /2.0/folders/" + std::to_string(i));
  ASSERT_TRUE(connection.send(several));
  for (const int status : {200, 404, 404}) EXPECT_EQ(connection.receive().status, status);
  // An early refusal is followed by the rest of the body, which must not be taken for a request.
  ASSERT_TRUE(connection.send(box.text("POST /2.0/nothing", sample(300000))));
  EXPECT_EQ(connection.receive().status, 404);
  ASSERT_TRUE(connection.send(box.text("GET /2.0/users/me", "", {{"Connection", "close"}})));
  EXPECT_EQ(connection.receive().status, 200);
  EXPECT_TRUE(connection.ended());
}

TEST(Server, AsksForABodyThatWaits) {
  const box_process box;
  raw_connection connection(box.port());
  const std::string body = named("n");
  const std::string whole = box.text("POST /2.0/folders", body, {{"Expect", "100-continue"}});
  ASSERT_TRUE(connection.send(whole.substr(0, whole.size() - body.size())));
  EXPECT_EQ(connection.receive(false).status, 100);
  ASSERT_TRUE(connection.send(body));
  EXPECT_EQ(connection.receive().status, 201);
  ASSERT_TRUE(connection.send(box.text("PUT /2.0/nothing", "", {{"Expect", "100-continue"}, {"Content-Length", "5"}})));
  EXPECT_EQ(connection.receive().status, 404) << "a refusal needs no body";
  EXPECT_TRUE(connection.ended());
}

TEST(Server, RefusesWhatIsNotHttp) {
  const box_process box;
  for (const auto& [bytes, status] : std::vector<std::pair<std::string, int>>{
           {"nonsense\r\n\r\n", 400},
           {"GET / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding:\r\n\r\n", 400},
           {"GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n", 400},
           {"POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", 400},
           {"GET / HTTP/1.1\r\nLong: " + std::string(70000, 'x') + "\r\n\r\n", 431}}) {
    raw_connection connection(box.port());
    (void)connection.send(bytes);
    EXPECT_EQ(connection.receive().status, status) << bytes.substr(0, 40);
  }
  raw_connection broken(box.port());
  (void)broken.send(box.text("POST /2.0/folders", "", {{"Content-Length", "5"}, {"X", "y"}}) + "{}");
  EXPECT_EQ(box.send("GET /2.0/users/me").status, 200) << "a client that stops in mid-body holds up nobody";
}

TEST(Server, OneOfManyCreatesWins) {
  const box_process box;
  std::atomic<int> created = 0;
  std::atomic<int> refused = 0;
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&, i] {
      for (int round = 0; round < 10; ++round) {
        const std::string attributes = named("n" + std::to_string(round));
        const reply answer = i % 2 == 0 ? box.send("POST /2.0/folders", attributes) : box.upload(attributes, "x");
        if (answer.status == 201) ++created;
        if (answer.status == 409) ++refused;
      }
    });
  }
  for (std::thread& each : clients) each.join();
  EXPECT_EQ(created, 10);
  EXPECT_EQ(refused, 70);
  EXPECT_EQ(box.send("GET /2.0/folders/0/items").at("total_count"), "10");
}

TEST(Server, StateAndDemoSurviveARestart) {
  const temporary_directory directory;
  std::string before;
  std::string file;
  for (int run = 0; run < 2; ++run) {
    const box_process box(directory.path(), {"--demo"});
    if (run == 0) file = box.file("0", "mine", sample(1000));
    const std::string now = box.send("GET /2.0/folders/0?fields=item_collection,size").body;
    EXPECT_EQ(before.empty() ? now : before, now);
    before = now;
    EXPECT_TRUE(box.fetch(file).body == sample(1000));
    EXPECT_NE(now.find("documents"), std::string::npos);
  }
}

TEST(Server, AccountsDoNotSeeEachOther) {
  const box_process box({"--account", "bob:bob-token"});
  const std::string file = box.file("0", "f", "x");
  EXPECT_EQ(box.send("GET /2.0/files/" + file, "", {}, "bob-token").status, 404);
  box.send("GET /2.0/folders/0/items", "", {}, "bob-token").expect("total_count=0");
}

TEST(Server, JournalTellsWhatCame) {
  const box_process box;
  const std::string start = box.send("GET /_emulator/journal/last").at("number");
  (void)box.send("POST /2.0/folders?fields=id&b=%2F", named("n"), {{"X-One", "1"}, {"x-two", "2"}});
  (void)box.file("0", "f", "secret bytes");
  const reply rows = box.send("GET /_emulator/journal?since=" + start);
  rows.expect(R"(0.method=POST|0.query=[["fields","id"],["b","/"]]|0.raw_query=fields=id&b=%2F|0.status=201)");
  rows.expect("0.body=" + named("n") + "|1.body=" + named("f"));
  EXPECT_NE(rows.at("0.headers").find(R"(["X-One","1"],["x-two","2"])"), std::string::npos);
  EXPECT_EQ(rows.body.find("alice-token"), std::string::npos);
  EXPECT_EQ(rows.body.find("secret bytes"), std::string::npos);
}

TEST(Server, LimitsTheRateWhenTold) {
  const box_process box(
      {"--set", "rate_limit=true", "--set", "rate_limit_requests=5", "--set", "rate_limit_uploads=1"});
  (void)box.file("0", "f", "x");
  const reply upload = box.upload("{}", "x");
  upload.expect("code=rate_limit_exceeded");
  const int wait = std::stoi(upload.header("Retry-After"));
  EXPECT_TRUE(wait >= 1 && wait <= 60) << wait;
  for (const int status : {200, 200, 200, 200, 429}) EXPECT_EQ(box.send("GET /2.0/users/me").status, status);
}

TEST(Server, BadCommandLinesSayWhatIsWrong) {
  const temporary_directory directory;
  const std::string data = "--data " + directory.path().string() + " ";
  const box_process running;
  struct row {
    std::string arguments;
    int status;
    std::string words;
  };
  for (const row& each :
       {row{"", 2, "--data is required"}, row{data + "--account x", 2, "NAME:TOKEN"},
        row{data + "--set part=1", 2, "unknown setting 'part'"},
        row{data + "--set part_size=big", 2, "wants a whole number"},
        row{data + "--set next_marker=x", 2, "null|empty|missing"}, row{data + "--listen here", 1, "HOST:PORT"},
        row{data + "--listen " + running.origin().substr(7), 1, "in use"},
        row{data + "--faults /nowhere.json", 1, "/nowhere.json"}, row{"--data /proc/nowhere", 1, "/proc/nowhere"},
        row{"--help", 0, "download_lifetime_s"}}) {
    const outcome ended = box_run(each.arguments);
    EXPECT_EQ(ended.status, each.status) << ended.text;
    EXPECT_NE(ended.text.find(each.words), std::string::npos) << ended.text;
  }
}

}  // namespace
}  // namespace emulator_test
