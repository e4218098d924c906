#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tarvex::server {

struct change_slots;

/// What a session's storage may not know of the changes in its account. Operation thread only.
///
/// A storage trusts what it has once seen for as long as its session lives, and what it has seen below a folder too.
/// So before an operation the slots of its path and of every folder above tell whether something there was removed,
/// renamed, moved or replaced since the storage's session began: then only a new session forgets. An addition makes no
/// knowledge wrong, it is only missing: a listing of its folder brings it.
///
/// A session's own changes are known to its storage, except where they change the meaning of paths below (folders), or
/// nobody knows how they ended: these are entered as made by nobody.
class change_view {
 public:
  /// Who made a change, for those that look at it later.
  enum class maker { self, nobody };

  /// The storage's session begins: what changes from now on may be unknown to it. Null slots: no other session exists.
  void open(change_slots* slots, std::string_view account);

  /// The count of changes so far. To be read before a listing starts that is to be noted with it.
  std::uint64_t now() const;
  /// Whether what the storage knows of `path`, or of a folder above it, has come to mean something else.
  bool stale(std::string_view path) const;
  /// Whether `path` itself was added since its folder was listed.
  bool addition_unseen(std::string_view path) const;
  /// The folder was listed when the count was `when`.
  void note_listed(const std::string& folder, std::uint64_t when);

  /// Enters a change of what stands at `path`, or an addition there.
  void enter_change(std::string_view path, maker by);
  void enter_addition(std::string_view path, maker by);

 private:
  std::uint64_t seen_since(std::string_view path) const;
  bool known(std::uint64_t word, std::uint64_t since) const;
  void enter(std::atomic<std::uint64_t>& word, std::uint64_t since, maker by);

  change_slots* slots_ = nullptr;
  std::string account_;
  std::uint32_t tag_ = 0;
  std::uint64_t opened_ = 0;
  std::unordered_map<std::string, std::uint64_t> listed_;
};

}  // namespace tarvex::server
