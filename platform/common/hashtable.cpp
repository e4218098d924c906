// Chains of small nodes. A session may hold tens of thousands of entries, so a node is three pointers and nothing else,
// and nodes are allocated many at a time; neither they nor the bucket array, which grows with the entries, are given
// back before the table is destroyed.

#include "tarvex_common.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace {

struct node {
  void* key;
  void* datum;
  node* next;
};

using bucket_array = std::unique_ptr<node*[]>;

/// Where a table's nodes come from.
class node_pool {
 public:
  node_pool() = default;
  node_pool(const node_pool&) = delete;
  node_pool& operator=(const node_pool&) = delete;
  ~node_pool() {
    while (blocks_) blocks_ = std::move(blocks_->before);  // one after the other: their chain may be long
  }
  /// \return null when memory is out
  node* get() {
    if (free_ == nullptr && !refill()) return nullptr;
    return std::exchange(free_, free_->next);
  }
  void put(node* unused) { unused->next = std::exchange(free_, unused); }

 private:
  static constexpr std::size_t BLOCK_NODES = 64;
  struct block {
    std::unique_ptr<block> before;
    std::array<node, BLOCK_NODES> nodes;
  };

  bool refill() {
    std::unique_ptr<block> fresh(new (std::nothrow) block);
    if (!fresh) return false;
    for (node& unused : fresh->nodes) put(&unused);
    fresh->before = std::move(blocks_);
    blocks_ = std::move(fresh);
    return true;
  }

  std::unique_ptr<block> blocks_;
  node* free_ = nullptr;
};

}  // namespace

struct tarvex_hashtable_s {
  bucket_array buckets;
  int bucket_count;
  size_t size;
  tarvex_hashtable_hash_func_t hash;
  tarvex_hashtable_keyeq_func_t keyeq;
  node_pool nodes;
};

namespace {

using table = tarvex_hashtable_s;

bucket_array new_buckets(int count) {
  return bucket_array(new (std::nothrow) node*[static_cast<size_t>(count)]());
}

node** bucket_of(const table& self, node** buckets, int count, void* key) {
  // A hash function that breaks its bound must not lead outside the array.
  return &buckets[static_cast<unsigned>(self.hash(key, count)) % static_cast<unsigned>(count)];
}

/// The link that points to the key's node, or the null link at which its chain ends.
node** link_of(const table& self, void* key) {
  node** link = bucket_of(self, self.buckets.get(), self.bucket_count, key);
  while (*link != nullptr && self.keyeq((*link)->key, key) == 0) link = &(*link)->next;
  return link;
}

/// Without memory for more buckets the table goes on with those that it has.
void grow(table& self) {
  if (self.bucket_count > INT_MAX / 2) return;
  const int count = self.bucket_count * 2 + 1;
  bucket_array buckets = new_buckets(count);
  if (!buckets) return;
  for (int i = 0; i < self.bucket_count; ++i) {
    for (node* moved = self.buckets[static_cast<size_t>(i)]; moved != nullptr;) {
      node** bucket = bucket_of(self, buckets.get(), count, moved->key);
      node* following = std::exchange(moved->next, *bucket);
      *bucket = std::exchange(moved, following);
    }
  }
  self.buckets = std::move(buckets);
  self.bucket_count = count;
}

bool has_storage(const tarvex_hashtable_t* handle) {
  return handle != nullptr && *handle != nullptr;
}

}  // namespace

extern "C" {

int tarvex_hashtable_init(tarvex_hashtable_t* table_out, int buckets, tarvex_hashtable_hash_func_t hash,
                          tarvex_hashtable_keyeq_func_t keyeq) {
  if (table_out == nullptr) return EINVAL;
  *table_out = nullptr;
  if (buckets <= 0 || hash == nullptr || keyeq == nullptr) return EINVAL;
  std::unique_ptr<table> self(new (std::nothrow) table{new_buckets(buckets), buckets, 0, hash, keyeq, {}});
  if (!self || !self->buckets) return ENOMEM;
  *table_out = self.release();
  return 0;
}

int tarvex_hashtable_insert(tarvex_hashtable_t* handle, void* key, void* datum) {
  if (!has_storage(handle)) return EINVAL;
  table& self = **handle;
  node** link = link_of(self, key);
  if (*link != nullptr) return EEXIST;
  node* const entry = self.nodes.get();
  if (entry == nullptr) return ENOMEM;
  *entry = {key, datum, nullptr};
  *link = entry;
  if (++self.size > static_cast<size_t>(self.bucket_count)) grow(self);
  return 0;
}

void* tarvex_hashtable_lookup(tarvex_hashtable_t* handle, void* key) {
  if (!has_storage(handle)) return nullptr;
  const node* found = *link_of(**handle, key);
  return found == nullptr ? nullptr : found->datum;
}

void* tarvex_hashtable_remove(tarvex_hashtable_t* handle, void* key) {
  if (!has_storage(handle)) return nullptr;
  node** link = link_of(**handle, key);
  node* const removed = *link;
  if (removed == nullptr) return nullptr;
  *link = removed->next;
  (*handle)->nodes.put(removed);
  --(*handle)->size;
  return removed->datum;
}

size_t tarvex_hashtable_size(const tarvex_hashtable_t* handle) {
  return has_storage(handle) ? (*handle)->size : 0;
}

void tarvex_hashtable_destroy_all(tarvex_hashtable_t* handle, void (*release)(void* datum)) {
  if (!has_storage(handle)) return;
  const std::unique_ptr<table> self(std::exchange(*handle, nullptr));
  if (release == nullptr) return;
  for (int i = 0; i < self->bucket_count; ++i) {
    for (const node* current = self->buckets[static_cast<size_t>(i)]; current != nullptr; current = current->next) {
      release(current->datum);
    }
  }
}

int tarvex_hashtable_string_hash(void* key, int limit) {
  if (key == nullptr || limit <= 0) return 0;
  uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
  for (const auto* byte = static_cast<const unsigned char*>(key); *byte != 0; ++byte) {
    hash = (hash ^ *byte) * 0x100000001b3;
  }
  return static_cast<int>(hash % static_cast<unsigned>(limit));
}

int tarvex_hashtable_string_keyeq(void* key1, void* key2) {
  if (key1 == nullptr || key2 == nullptr) return key1 == key2;
  return std::strcmp(static_cast<const char*>(key1), static_cast<const char*>(key2)) == 0;
}

}  // extern "C"
