#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

struct tarvex_gfs_operation_s;

namespace tarvex::server {

struct change_counters;

/// What a session knows of the changes that other sessions of its account made. Operation thread only.
///
/// A storage keeps the listings that it has made, so a folder may hold by now what the storage takes for missing. The
/// account's counter tells when that is possible, and for each folder it is remembered how far the counter was when
/// the folder was last listed: what was listed anew here says nothing about a folder there.
class change_view {
 public:
  /// Changes from now on may be unknown to the storage's session. Null counters: no other session exists.
  void open(change_counters* counters, std::string_view account);

  /// Changes of others so far. To be read before a listing starts that is to be noted with it.
  std::uint64_t changes() const;
  /// Whether others changed something since the folder was listed.
  bool outdated(const std::string& folder) const;
  /// The folder was listed when others had made so many changes.
  void note_listed(const std::string& folder, std::uint64_t changes);
  /// This session changed something.
  void raise();

  /// The storage may take the item for missing though it is there: a removal of it was refused, or nobody knows how a
  /// change ended.
  void doubt(const std::string& path);
  /// The item of a doubt that is `path` or lies above it; the doubt is over with that. Empty: none.
  std::string take_doubt(std::string_view path);

 private:
  std::atomic<std::uint64_t>* counter_ = nullptr;
  std::uint64_t own_ = 0;     ///< of what the counter says
  std::uint64_t opened_ = 0;  ///< changes of others when the session began: what is not in listed_ is that new
  std::unordered_map<std::string, std::uint64_t> listed_;
  std::unordered_set<std::string> doubts_;
};

/// Runs an operation's work, and tells the account's other sessions when it may have changed something. Operation
/// thread; every operation comes this way.
///
/// An operation that ends in PATH_NOT_FOUND or NOT_A_DIRECTORY, though others have changed something since the folders
/// of its path were listed, has them listed again, from the nearest one that exists, and is run once more. The same
/// happens where a failed change of this session has left the item in doubt. Nothing is asked of the storage otherwise.
/// What an operation's subject has to say for that:
///
/// - `path`, and `from_path` where there are two: whose folders are listed.
/// - `changes`: raises the account's counter once it is over, unless the storage has refused it outright.
/// - `removes`: a storage may have forgotten the item although the removal failed.
/// - `lists`: its success is a listing of `path`.
/// - `existing_may_be_new`: PATH_EXISTS is treated like PATH_NOT_FOUND, whatever the counter says: that the name is
///   taken is news to the storage, or it would not have tried (the other session may still be about to raise the
///   counter).
///
/// One that cannot be rewound, since bytes have flowed, is not run again; its folders are listed all the same, so that
/// the client's next try succeeds.
void operation_run(tarvex_gfs_operation_s& op) noexcept;

}  // namespace tarvex::server
