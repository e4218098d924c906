#include "control/demo.h"

#include "api/storing.h"
#include "base/times.h"
#include "control/fill.h"

namespace tarvex::emulator {
namespace {

/// "a/b/name"; a path that ends in '/' is a folder. With `bytes` above 0 the content is a pattern of that length.
struct row {
  std::string_view path;
  std::string_view text;
  std::size_t bytes;
};

constexpr row ROWS[] = {
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

class planter {
 public:
  planter(box_state& box, const user& owner) : box_(box), owner_(owner), now_(time_now()) {}

  void add(const row& what) {
    std::int64_t folder = ROOT_ID;
    std::string_view rest = what.path;
    for (auto slash = rest.find('/'); slash != std::string_view::npos; slash = rest.find('/')) {
      folder = folder_named(folder, rest.substr(0, slash));
      rest.remove_prefix(slash + 1);
    }
    if (!rest.empty()) add_file(folder, rest, what.bytes > 0 ? pattern_bytes(2, what.bytes) : std::string(what.text));
  }

 private:
  item base(std::int64_t folder, std::string_view name, item_type type) const {
    item made{.owner = owner_.id, .type = type, .parent = folder, .name = std::string(name)};
    made.created_at = made.modified_at = made.content_created_at = made.content_modified_at = now_;
    return made;
  }

  std::int64_t folder_named(std::int64_t parent, std::string_view name) {
    if (const auto known = box_.items.find_named(owner_.id, parent, name)) return known->id;
    return box_.items.create(base(parent, name, item_type::FOLDER)).id;
  }

  void add_file(std::int64_t folder, std::string_view name, const std::string& content) {
    content_draft draft(box_.contents);
    draft.append(content);
    item made = base(folder, name, item_type::FILE);
    made.size = draft.size();
    made.sha1 = draft.sha1();
    made.version = box_.data.next_number("versions");
    made = box_.items.create(std::move(made));
    box_.items.add_version({made.version, made.id, made.size, made.sha1, std::to_string(made.version)});
    box_.users.add_used(owner_.id, made.size);
    box_.contents.rename(draft.name(), std::to_string(made.version));
    draft.keep();
  }

  box_state& box_;
  const user& owner_;
  std::int64_t now_;
};

}  // namespace

void demo_fill(box_state& box, const user& owner) {
  transaction hold(box.data);
  if (box.items.count(owner.id, ROOT_ID) > 0) return;
  planter tree(box, owner);
  for (const row& each : ROWS) tree.add(each);
  hold.commit();
}

}  // namespace tarvex::emulator
