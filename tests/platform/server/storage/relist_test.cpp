#include "session_fixture.h"

#include <set>

namespace tarvex::server::test {
namespace {

/// A storage that keeps what it has listed. Names that end in "/" are folders.
class RelistTest : public SessionTest {
 protected:
  RelistTest() {
    script.stat = [this](auto op, tarvex_gfs_stat_info_t* info) { stat(op, *info); };
    script.command = [this](auto op, tarvex_gfs_command_info_t* info) { run(op, *info); };
    log_in();
  }

  /// Sends a line, whose reply starts as said, after the storage was asked these things.
  void expect_asked(const char* line, const char* start, const char* asks) {
    asked.clear();
    expect(line, start);
    EXPECT_EQ(asked, asks) << line;
  }

  /// Another session makes these items.
  void others_make(const std::set<std::string>& items) {
    there.insert(items.begin(), items.end());
    others_change(items.empty() ? "/elsewhere" : *items.begin());
  }

  std::set<std::string> there = {"/", "/a/"};  ///< what the storage would find
  std::set<std::string> known = {"/", "/a/"};  ///< what it has found
  std::string asked;                           ///< by the operation thread, read between commands

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
    asked += (info.internal ? "again " : "list ") + path + ";";
    find(path);
    answer_listing(op, 0, 100);
  }

  void run(tarvex_gfs_operation_t op, const tarvex_gfs_command_info_t& info) {
    const std::string path = info.pathname;
    const std::string parent = path.substr(0, path.rfind('/'));
    asked += "run " + path + ";";
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
};

TEST_F(RelistTest, MissingItemsAreLookedForOnceAfterChangesOfOthers) {
  expect_asked("SIZE /a/new", "550", "");
  expect_asked("MKD /a/own", "257", "run /a/own;");
  expect_asked("SIZE /a/new", "550", "");  // a change of one's own
  others_make({"/a/new", "/b/", "/b/c/", "/b/c/deep"});
  expect_asked("SIZE /a/new", "213", "again /a;");
  expect_asked("SIZE /a/none", "550", "");
  expect_asked("SIZE /b/none", "550", "again /;");  // the counter stands still, but "/" was not listed since it moved
  expect_asked("SIZE /b/c/deep", "213", "");
  expect_asked("SIZE /b/c/none", "550", "again /b/c;");
  expect_asked("SIZE /b/c/none", "550", "");
  others_make({});
  expect_asked("MKD /a/own2", "257", "run /a/own2;");  // does not hide the other's change
  expect_asked("SIZE /a/none", "550", "again /a;");
  expect_asked("MKD /none/x", "553", "run /none/x;again /;run /none/x;");
  others_make({"/to/"});
  expect_asked("MKD /to/x", "257", "run /to/x;again /;run /to/x;");
  others_make({"/a/moved"});
  expect_asked("RNFR /a/moved", "350", "again /a;");
  expect_asked("RNTO /a/f", "250", "run /a/f;");
  others_make({"/a/quick/"});
  expect_asked("MKD /a/quick", "257", "run /a/quick;again /a;run /a/quick;");
  expect_asked("STAT /a", "213-", "list /a;");
}

/// The storage forgets what it could not remove, and takes the listing of the folder around it for complete.
TEST_F(RelistTest, ARefusedRemovalHidesNothing) {
  there.insert({"/a/b/", "/a/b/full"});
  known.insert("/a/b/");
  expect_asked("RMD /a/b", "553 ", "run /a/b;");
  expect_asked("SIZE /a/other", "550-", "");
  expect_asked("SIZE /a/b/full", "213 ", "again /a;");
  expect_asked("SIZE /a/b/none", "550-", "");
}

TEST_F(RelistTest, BothPathsOfARenameAreListed) {
  there.insert("/a/f");
  known.insert("/a/f");
  expect("RNFR /a/f", "350 ");
  known.erase("/a/f");
  others_make({"/to/"});
  expect_asked("RNTO /to/f", "250 ", "run /to/f;again /;again /a;run /to/f;");
}

TEST_F(RelistTest, TransfersAreRunAgainBeforeAByteHasFlowedOnly) {
  there.insert("/a/f");
  known.insert("/a/f");
  for (const bool late : {true, false}) {
    int sends = 0;
    script.send = [&](auto op, auto*) {
      tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
      const bool fails = sends++ == 0;
      EXPECT_TRUE((!late && fails) || write_and_wait(op, "x", 0));
      tarvex_gridftp_server_finished_transfer(op, fails ? not_found("/a/f") : tarvex_result_t{TARVEX_SUCCESS});
    };
    others_make({});
    asked.clear();
    EXPECT_EQ(fetch("RETR /a/f"), "x");
    expect_reply(late ? "550" : "226");
    EXPECT_EQ(sends, late ? 1 : 2);
    EXPECT_EQ(asked, "again /a;") << "so that the client's next try finds what is there";
  }
}

TEST_F(RelistTest, ChangesAreCounted) {
  struct {
    const char* line;
    std::uint64_t raises;
  } const rows[] = {
      {"MKD /a/x", 1}, {"SIZE /a/x", 0}, {"MKD /none/x", 0}, {"RMD /a/x", 1}, {"DELE /a/x", 1 /* unknown outcome */},
  };
  for (const auto& row : rows) {
    const std::uint64_t before = changes_noted();
    command(row.line);
    EXPECT_EQ(changes_noted() - before, row.raises) << row.line;
  }
}

}  // namespace
}  // namespace tarvex::server::test
