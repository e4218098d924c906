// The program and its HTTP: connections, bodies, several clients at once, restarts, the command line.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "box_process.h"

namespace emulator_test {
namespace {

TEST(Server, KeepsConnectionsAndAnswersInOrder) {
  const box_process box;
  raw_connection connection(box.port());
  const http_client client = box.client();
  std::string several;
  for (int i = 0; i < 3; ++i) several += client.text("GET", "/2.0/folders/" + std::to_string(i), "", {});
  ASSERT_TRUE(connection.send(several));
  for (const int status : {200, 404, 404}) EXPECT_EQ(connection.receive().status, status);
  // An early refusal is followed by the rest of the body, which must not be taken for a request.
  ASSERT_TRUE(connection.send(client.text("POST", "/2.0/nothing", sample(300000), {})));
  EXPECT_EQ(connection.receive().status, 404);
  ASSERT_TRUE(connection.send(client.text("GET", "/2.0/users/me", "", {{"Connection", "close"}})));
  EXPECT_EQ(connection.receive().status, 200);
  EXPECT_TRUE(connection.ended());
}

TEST(Server, AsksForABodyThatWaits) {
  const box_process box;
  raw_connection connection(box.port());
  const std::string body = R"({"name":"n","parent":{"id":"0"}})";
  const std::string whole = box.client().text("POST", "/2.0/folders", body, {{"Expect", "100-continue"}});
  ASSERT_TRUE(connection.send(whole.substr(0, whole.size() - body.size())));
  EXPECT_EQ(connection.receive(false).status, 100);
  ASSERT_TRUE(connection.send(body));
  EXPECT_EQ(connection.receive().status, 201);
  ASSERT_TRUE(connection.send(
      box.client().text("PUT", "/2.0/nothing", "", {{"Expect", "100-continue"}, {"Content-Length", "5"}})));
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
  (void)broken.send(box.client().text("POST", "/2.0/folders", "", {{"Content-Length", "5"}, {"X", "y"}}) + "{}");
  EXPECT_EQ(box.send("GET", "/2.0/users/me").status, 200) << "a client that stops in mid-body holds up nobody";
}

TEST(Server, OneOfManyCreatesWins) {
  const box_process box;
  std::atomic<int> created = 0;
  std::atomic<int> refused = 0;
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&, i] {
      for (int round = 0; round < 10; ++round) {
        const std::string name = "n" + std::to_string(round);
        const std::string attributes = R"({"name":")" + name + R"(","parent":{"id":"0"}})";
        const reply answer = i % 2 == 0
                                 ? box.send("POST", "/2.0/folders", attributes)
                                 : box.send("POST", "/api/2.0/files/content", form(attributes, "x"), form_type());
        if (answer.status == 201) ++created;
        if (answer.status == 409) ++refused;
      }
    });
  }
  for (std::thread& each : clients) each.join();
  EXPECT_EQ(created, 10);
  EXPECT_EQ(refused, 70);
  EXPECT_EQ(box.send("GET", "/2.0/folders/0/items").at("total_count"), "10");
}

TEST(Server, StateAndDemoSurviveARestart) {
  const temporary_directory directory;
  std::string before;
  std::string file;
  for (int run = 0; run < 2; ++run) {
    const box_process box(directory.path(), {"--demo"});
    if (run == 0) file = box.file("0", "mine", sample(1000));
    const std::string now = box.send("GET", "/2.0/folders/0?fields=item_collection,size").body;
    EXPECT_EQ(before.empty() ? now : before, now);
    before = now;
    EXPECT_TRUE(box.fetch(file).body == sample(1000));
    EXPECT_NE(now.find("documents"), std::string::npos);
  }
}

TEST(Server, AccountsDoNotSeeEachOther) {
  const box_process box({"--account", "bob:bob-token"});
  const std::string file = box.file("0", "f", "x");
  EXPECT_EQ(box.client("bob-token").send("GET", "/2.0/files/" + file).status, 404);
  EXPECT_EQ(box.client("bob-token").send("GET", "/2.0/folders/0/items").at("total_count"), "0");
}

TEST(Server, JournalTellsWhatCame) {
  const box_process box;
  const std::string start = box.send("GET", "/_emulator/journal/last").at("number");
  (void)box.send("POST", "/2.0/folders?fields=id&b=%2F", R"({"name":"n","parent":{"id":"0"}})",
                 {{"X-One", "1"}, {"x-two", "2"}});
  (void)box.file("0", "f", "secret bytes");
  const reply rows = box.send("GET", "/_emulator/journal?since=" + start);
  EXPECT_EQ(rows.at("0.method"), "POST");
  EXPECT_EQ(rows.at("0.query"), R"([["fields","id"],["b","/"]])");
  EXPECT_EQ(rows.at("0.raw_query"), "fields=id&b=%2F");
  EXPECT_EQ(rows.at("0.body"), R"({"name":"n","parent":{"id":"0"}})");
  EXPECT_EQ(rows.at("0.status"), "201");
  EXPECT_NE(rows.at("0.headers").find(R"(["X-One","1"],["x-two","2"])"), std::string::npos);
  EXPECT_EQ(rows.at("1.body"), R"({"name":"f","parent":{"id":"0"}})");
  EXPECT_EQ(rows.body.find("alice-token"), std::string::npos);
  EXPECT_EQ(rows.body.find("secret bytes"), std::string::npos);
}

TEST(Server, LimitsTheRateWhenTold) {
  const box_process box(
      {"--set", "rate_limit=true", "--set", "rate_limit_requests=5", "--set", "rate_limit_uploads=1"});
  (void)box.file("0", "f", "x");
  const reply upload = box.send("POST", "/api/2.0/files/content", form("{}", "x"), form_type());
  EXPECT_EQ(upload.at("code"), "rate_limit_exceeded");
  const int wait = std::stoi(upload.header("Retry-After"));
  EXPECT_TRUE(wait >= 1 && wait <= 60) << wait;
  for (int i = 0; i < 4; ++i) EXPECT_EQ(box.send("GET", "/2.0/users/me").status, 200);
  EXPECT_EQ(box.send("GET", "/2.0/users/me").status, 429);
}

TEST(Server, BadCommandLinesSayWhatIsWrong) {
  const temporary_directory directory;
  const std::string data = directory.path();
  const box_process running;
  const std::string taken = "127.0.0.1:" + std::to_string(running.port());
  struct row {
    std::vector<std::string> arguments;
    int status;
    const char* words;
  };
  for (const row& each :
       {row{{}, 2, "--data is required"}, row{{"--data", data, "--account", "x"}, 2, "NAME:TOKEN"},
        row{{"--data", data, "--set", "part=1"}, 2, "unknown setting 'part'"},
        row{{"--data", data, "--set", "part_size=big"}, 2, "wants a whole number"},
        row{{"--data", data, "--set", "next_marker=x"}, 2, "null|empty|missing"},
        row{{"--data", data, "--listen", "here"}, 1, "HOST:PORT"},
        row{{"--data", data, "--listen", taken}, 1, "in use"},
        row{{"--data", data, "--faults", "/nowhere.json"}, 1, "/nowhere.json"},
        row{{"--data", "/proc/nowhere"}, 1, "/proc/nowhere"}, row{{"--help"}, 0, "download_lifetime_s"}}) {
    const outcome ended = box_run(each.arguments);
    EXPECT_EQ(ended.status, each.status) << ended.text;
    EXPECT_NE(ended.text.find(each.words), std::string::npos) << ended.text;
  }
}

}  // namespace
}  // namespace emulator_test
