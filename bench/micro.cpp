// The pieces inside a session process that a large folder passes through, each by itself.

#include "ftp/listing.h"
#include "tarvex_box_common.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using benchmark::State;

constexpr int FOLDER_SIZE = 30000;

char* text(const std::string& value) {
  return const_cast<char*>(value.c_str());
}

std::string file_name(int number) {
  return "measurement-" + std::to_string(number) + ".dat";
}

/// A folder's entries as a listing leaves them for the cache; the strings are shared.
struct folder {
  std::vector<std::string> names;
  std::vector<std::string> ids;
  std::string parent_id = "2283746501";
  std::string sha1 = "da39a3ee5e6b4b0d3255bfef95601890afd80709";

  folder() {
    for (int i = 0; i < FOLDER_SIZE; ++i) {
      names.push_back(file_name(i));
      ids.push_back(std::to_string(1'000'000'000'000 + i));
    }
  }

  tarvex_box_path_info_t item(size_t i) const {
    tarvex_box_path_info_t info = {};
    info.name = text(names[i]);
    info.id = text(ids[i]);
    info.parent_id = text(parent_id);
    info.sha1 = text(sha1);
    info.type = TARVEX_BOX_FILE;
    info.size = 10'000;
    info.modtime = 1'700'000'000;
    return info;
  }
};

/// A path cache that is released at the end.
struct path_cache {
  tarvex_hashtable_t table = nullptr;

  path_cache() = default;
  path_cache(const path_cache&) = delete;
  path_cache& operator=(const path_cache&) = delete;
  ~path_cache() {
    tarvex_hashtable_destroy_all(
        &table, [](void* datum) { tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t*>(datum)); });
  }
};

/// Whether every entry went in.
bool fill(const folder& items, path_cache& cache) {
  if (tarvex_box_path_cache_init(&cache.table) != TARVEX_SUCCESS) return false;
  for (size_t i = 0; i < items.names.size(); ++i) {
    const auto info = items.item(i);
    if (tarvex_box_path_cache_update(&cache.table, &info, "/data/run-17") != TARVEX_SUCCESS) return false;
  }
  return true;
}

size_t allocated_bytes() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

void cache_fill(State& state) {
  const folder items;
  size_t bytes = 0;
  for (auto _ : state) {
    const size_t before = allocated_bytes();
    auto cache = std::make_unique<path_cache>();
    if (!fill(items, *cache)) return state.SkipWithError("an entry was refused");
    bytes = allocated_bytes() - before;
    state.PauseTiming();
    cache.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * FOLDER_SIZE);
  state.counters["bytes_per_item"] = static_cast<double>(bytes) / FOLDER_SIZE;
}

/// Where a folder is listed again: every entry replaces one.
void cache_update(State& state) {
  const folder items;
  path_cache cache;
  if (!fill(items, cache)) return state.SkipWithError("an entry was refused");
  size_t i = 0;
  for (auto _ : state) {
    const auto info = items.item(i++ % FOLDER_SIZE);
    benchmark::DoNotOptimize(tarvex_box_path_cache_update(&cache.table, &info, "/data/run-17"));
  }
  state.SetItemsProcessed(state.iterations());
}

void cache_query(State& state) {
  const folder items;
  path_cache cache;
  if (!fill(items, cache)) return state.SkipWithError("an entry was refused");
  std::vector<std::string> paths;
  for (const auto& name : items.names) paths.push_back("/data/run-17/" + name);
  size_t i = 0;
  for (auto _ : state) {
    if (tarvex_box_path_cache_query(&cache.table, paths[i++ % paths.size()].c_str()) == nullptr) {
      return state.SkipWithError("an entry is missing");
    }
  }
  state.SetItemsProcessed(state.iterations());
}

constexpr char ITEM_JSON[] =
    R"({"type":"file","id":"1000000012345","name":"measurement-12345.dat","parent":{"type":"folder","id":"2283746501",)"
    R"("sequence_id":"1","etag":"1","name":"run-17"},"size":10000,"content_modified_at":"2023-11-14T14:13:20-08:00",)"
    R"("sha1":"da39a3ee5e6b4b0d3255bfef95601890afd80709","etag":"0"})";

/// Text to document to record; with argument 0 the record alone.
void item_parse(State& state) {
  const bool with_text = state.range(0) != 0;
  json_t* document = json_loads(ITEM_JSON, 0, nullptr);
  for (auto _ : state) {
    json_t* parsed = with_text ? json_loads(ITEM_JSON, 0, nullptr) : json_incref(document);
    tarvex_box_path_info_t info = {};
    if (tarvex_box_object_info_parse(parsed, &info) != TARVEX_SUCCESS) state.SkipWithError("not parsed");
    tarvex_box_path_info_free(&info);
    json_decref(parsed);
  }
  json_decref(document);
  state.SetItemsProcessed(state.iterations());
}

void listing_line(State& state) {
  tarvex_gridftp_server_control_stat_t stat = {};
  stat.mode = 0100700;
  stat.nlink = 1;
  stat.size = 10'000;
  stat.atime = stat.ctime = stat.mtime = 1'700'000'000;
  stat.dev = 12345;
  stat.ino = 67890;
  const auto form = static_cast<tarvex::server::listing_form>(state.range(0));
  std::string lines;
  for (auto _ : state) {
    lines.clear();
    for (int i = 0; i < 100; ++i) {
      tarvex::server::listing_append(form, stat, "measurement-12345.dat", 1'700'100'000, ~0U, lines);
    }
    benchmark::DoNotOptimize(lines.data());
  }
  state.SetItemsProcessed(state.iterations() * 100);
}

void result_round_trip(State& state) {
  for (auto _ : state) {
    tarvex_result_t result = tarvex_error_put(
        tarvex_error_construct_error(nullptr, nullptr, TARVEX_GFS_ERROR_GENERIC, __FILE__, __func__, __LINE__, "x"));
    benchmark::DoNotOptimize(tarvex_error_peek(result));
    tarvex_result_release(result);
  }
  state.SetItemsProcessed(state.iterations());
}

/// The table alone, keys and data borrowed: `FOLDER_SIZE` insertions into a table that starts with 1023 buckets.
void hashtable_fill(State& state) {
  const folder items;
  size_t bytes = 0;
  for (auto _ : state) {
    const size_t before = allocated_bytes();
    tarvex_hashtable_t table = nullptr;
    int failures = tarvex_hashtable_init(&table, 1023, tarvex_hashtable_string_hash, tarvex_hashtable_string_keyeq);
    for (const auto& name : items.names) failures += tarvex_hashtable_insert(&table, text(name), nullptr);
    bytes = allocated_bytes() - before;
    tarvex_hashtable_destroy_all(&table, nullptr);
    if (failures != 0) return state.SkipWithError("an insertion failed");
  }
  state.SetItemsProcessed(state.iterations() * FOLDER_SIZE);
  state.counters["bytes_per_item"] = static_cast<double>(bytes) / FOLDER_SIZE;
}

BENCHMARK(cache_fill)->Unit(benchmark::kMillisecond);
BENCHMARK(cache_update);
BENCHMARK(cache_query);
BENCHMARK(item_parse)->ArgName("with_text")->Arg(1)->Arg(0);
BENCHMARK(listing_line)->ArgName("form")->DenseRange(0, 2);
BENCHMARK(result_round_trip);
BENCHMARK(hashtable_fill)->Unit(benchmark::kMillisecond);

}  // namespace
