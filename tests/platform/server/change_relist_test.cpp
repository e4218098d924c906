#include "core_session_fixture.h"
#include "storage/change_counters.h"

#include <set>

namespace tarvex::server::test {
namespace {

/// A storage that keeps what it has listed. Names that end in "/" are folders.
class RelistTest : public SessionTest {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    script.stat = [this](auto op, tarvex_gfs_stat_info_t* info) { stat(op, *info); };
    script.command = [this](auto op, tarvex_gfs_command_info_t* info) { run(op, *info); };
    log_in();
  }

  /// Another session makes a change.
  void other_session(const std::function<void()>& change) {
    change();
    ++change_counter(changes, "alice");
  }

  std::string asked() { return std::exchange(asked_, {}); }

  std::set<std::string> there = {"/", "/a/"};  ///< what the storage would find
  std::set<std::string> known = {"/", "/a/"};  ///< what it has found

 private:
  /// Makes what lies in a folder known.
  void find(const std::string& path) {
    const std::string prefix = path == "/" ? "/" : path + "/";
    for (const std::string& item : there) {
      const std::size_t slash = item.find('/', prefix.size());
      if (item.starts_with(prefix) && (slash == std::string::npos || slash + 1 == item.size())) known.insert(item);
    }
    listed_.insert(path);
  }

  /// Lists what was never listed on the way to a path.
  void resolve(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      const std::string above = path.substr(0, slash);
      if (folder(known, above) && !listed_.contains(above)) find(above);
    }
  }

  bool folder(const std::set<std::string>& of, const std::string& path) {
    return of.contains(path == "/" ? path : path + "/");
  }

  void stat(tarvex_gfs_operation_t op, const tarvex_gfs_stat_info_t& info) {
    const std::string path = info.pathname;
    resolve(path);
    const bool exists = folder(known, path) || (info.file_only && known.contains(path));
    if (!exists || (!info.file_only && !folder(there, path)))
      return tarvex_gridftp_server_finished_stat(op, not_found(info.pathname), nullptr, 0);
    if (info.file_only) return answer_item(op, folder(known, path), 5);
    asked_ += (info.internal ? "again " : "list ") + path + ";";
    find(path);
    answer_listing(op, 0, 100);
  }

  void run(tarvex_gfs_operation_t op, const tarvex_gfs_command_info_t& info) {
    const std::string path = info.pathname;
    const std::string parent = path.substr(0, path.rfind('/'));
    asked_ += "run " + path + ";";
    tarvex_result_t result = TARVEX_SUCCESS;
    const auto error = [](const char* word) {
      return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 553, word, nullptr));
    };
    if (!parent.empty() && !folder(known, parent)) result = error("NOT_A_DIRECTORY");
    if (info.from_pathname && !known.contains(info.from_pathname)) result = not_found(info.from_pathname);
    if (info.command == TARVEX_GFS_CMD_MKD && folder(there, path) && !folder(known, path))
      result = error("PATH_EXISTS");
    if (info.command == TARVEX_GFS_CMD_DELE) result = tarvex_error_put(nullptr);
    if (info.command == TARVEX_GFS_CMD_RMD && there.contains(path + "/full")) {
      result = error("PATH_EXISTS");
      known.erase(path + "/");
    }
    tarvex_gridftp_server_finished_command(op, result, nullptr);
  }

  std::set<std::string> listed_ = {"/", "/a"};
  std::string asked_;  // by the operation thread, read between commands
};

TEST_F(RelistTest, MissingItemsAreLookedForOnceAfterChangesOfOthers) {
  const auto expect = [this](const char* line, const char* reply, const char* asks) {
    EXPECT_EQ(command(line).substr(0, std::string(reply).size()), reply) << line;
    EXPECT_EQ(asked(), asks) << line;
  };
  expect("SIZE /a/new", "550", "");
  expect("MKD /a/own", "257", "run /a/own;");
  expect("SIZE /a/new", "550", "");  // a change of one's own
  other_session([&] { there.insert({"/a/new", "/b/", "/b/c/", "/b/c/deep"}); });
  expect("SIZE /a/new", "213", "again /a;");
  expect("SIZE /a/none", "550", "");
  expect("SIZE /b/none", "550", "again /;");  // the counter stands still, but "/" was not listed since it moved
  expect("SIZE /b/c/deep", "213", "");
  expect("SIZE /b/c/none", "550", "again /b/c;");
  expect("SIZE /b/c/none", "550", "");
  other_session([] {});
  expect("MKD /a/own2", "257", "run /a/own2;");  // does not hide the other's change
  expect("SIZE /a/none", "550", "again /a;");
  expect("MKD /none/x", "553", "run /none/x;again /;run /none/x;");
  other_session([&] { there.insert("/to/"); });
  expect("MKD /to/x", "257", "run /to/x;again /;run /to/x;");
  other_session([&] { there.insert("/a/moved"); });
  expect("RNFR /a/moved", "350", "again /a;");
  expect("RNTO /a/f", "250", "run /a/f;");
  other_session([&] { there.insert("/a/quick/"); });
  expect("MKD /a/quick", "257", "run /a/quick;again /a;run /a/quick;");
  EXPECT_EQ(command("STAT /a").substr(0, 4), "213-");
  EXPECT_EQ(asked(), "list /a;");
}

/// The storage forgets what it could not remove, and takes the listing of the folder around it for complete.
TEST_F(RelistTest, ARefusedRemovalHidesNothing) {
  there.insert({"/a/b/", "/a/b/full"});
  known.insert("/a/b/");
  EXPECT_EQ(command("RMD /a/b").substr(0, 4), "553 ");
  EXPECT_EQ(command("SIZE /a/other").substr(0, 4), "550-");
  EXPECT_EQ(asked(), "run /a/b;");
  EXPECT_EQ(command("SIZE /a/b/full").substr(0, 4), "213 ");
  EXPECT_EQ(asked(), "again /a;");
  EXPECT_EQ(command("SIZE /a/b/none").substr(0, 4), "550-");
  EXPECT_EQ(asked(), "");
}

TEST_F(RelistTest, BothPathsOfARenameAreListed) {
  there.insert("/a/f");
  known.insert("/a/f");
  EXPECT_EQ(command("RNFR /a/f").substr(0, 4), "350 ");
  known.erase("/a/f");
  other_session([&] { there.insert("/to/"); });
  EXPECT_EQ(command("RNTO /to/f").substr(0, 4), "250 ");
  EXPECT_EQ(asked(), "run /to/f;again /;again /a;run /to/f;");
}

TEST_F(RelistTest, TransfersAreRunAgainBeforeAByteHasFlowedOnly) {
  there.insert("/a/f");
  known.insert("/a/f");
  for (const bool late : {true, false}) {
    int sends = 0;
    script.send = [&](auto op, auto*) {
      tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
      const bool fails = sends++ == 0;
      if (late || !fails) {
        EXPECT_TRUE(write_and_wait(op, "x", 0));
      }
      tarvex_gridftp_server_finished_transfer(op, fails ? not_found("/a/f") : tarvex_result_t{TARVEX_SUCCESS});
    };
    other_session([] {});
    const loopback_socket data = passive();
    EXPECT_EQ(command("RETR /a/f").substr(0, 4), "150 ");
    EXPECT_EQ(data.read_all(), "x");
    EXPECT_EQ(reply().substr(0, 3), late ? "550" : "226");
    EXPECT_EQ(sends, late ? 1 : 2);
    EXPECT_EQ(asked(), "again /a;") << "so that the client's next try finds what is there";
  }
}

TEST_F(RelistTest, ChangesAreCounted) {
  const auto count = [this] { return change_counter(changes, "alice").load(); };
  struct {
    const char* line;
    std::uint64_t raises;
  } const rows[] = {
      {"MKD /a/x", 1}, {"SIZE /a/x", 0}, {"MKD /none/x", 0}, {"RMD /a/x", 1}, {"DELE /a/x", 1 /* unknown outcome */},
  };
  for (const auto& row : rows) {
    const std::uint64_t before = count();
    command(row.line);
    EXPECT_EQ(count() - before, row.raises) << row.line;
  }
}

}  // namespace
}  // namespace tarvex::server::test
