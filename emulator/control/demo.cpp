#include "control/demo.h"

#include "control/plant.h"
#include "store/content_draft.h"

namespace tarvex::emulator {
namespace {

/// "a/b/name"; a path that ends in '/' is a folder. With `bytes` above 0 the content is a pattern of that length.
struct demo_row {
  std::string_view path;
  std::string_view text;
  std::size_t bytes;
};

constexpr demo_row DEMO_ROWS[] = {
    {"README.txt", "This account lives in a local Box. Its contents may be changed at will.\n", 0},
    {"documents/", "", 0},
    {"documents/README.txt", "Documents of the demonstration.\n", 0},
    {"documents/notes.md", "# Notes\n\n- fetch me\n- rename me\n- delete me\n", 0},
    {"documents/reports/", "", 0},
    {"documents/reports/2023 summary.txt", "A name with a space in it.\n", 0},
    {"documents/reports/\xc3\xbc"
     "bersicht.txt",
     "A name beyond ASCII.\n", 0},
    {"data/", "", 0},
    {"data/measurements.csv", "time,value\n0,1.5\n1,1.75\n2,2.25\n", 0},
    {"data/sample.bin", "", 5000000},
    {"data/empty.dat", "", 0},
    {"incoming/", "", 0},
};

void add_file(box_state& box, const user& owner, std::int64_t folder, std::string_view name, const demo_row& what) {
  content_draft draft(box.contents);
  draft.append(what.bytes > 0 ? pattern_bytes(2, what.bytes) : std::string(what.text));
  const item made = plant_file(box, owner, folder, name, {.size = draft.size(), .sha1 = draft.sha1()});
  box.users.add_used(owner.id, made.size);
  box.contents.rename(draft.name(), std::to_string(made.version));
  draft.keep();
}

void add(box_state& box, const user& owner, const demo_row& what) {
  std::int64_t folder = ROOT_ID;
  std::string_view rest = what.path;
  for (auto slash = rest.find('/'); slash != std::string_view::npos; slash = rest.find('/')) {
    const std::string_view name = rest.substr(0, slash);
    const auto known = box.items.find_named(owner.id, folder, name);
    folder = known ? known->id : plant_folder(box, owner, folder, name).id;
    rest.remove_prefix(slash + 1);
  }
  if (!rest.empty()) add_file(box, owner, folder, rest, what);
}

}  // namespace

void demo_fill(box_state& box, const user& owner) {
  transaction hold(box.data);
  // A second start with the same directory finds what people have made of it, and leaves it alone.
  if (box.items.count(owner.id, ROOT_ID) > 0) return;
  for (const demo_row& each : DEMO_ROWS) add(box, owner, each);
  hold.commit();
}

}  // namespace tarvex::emulator
