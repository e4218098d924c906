#include "api/item_permission.h"

#include "api/access.h"

namespace tarvex::emulator {
namespace {

struct permission_row {
  const char* name;
  access_right right;
  unsigned kinds;  // bits by item_type
};

constexpr unsigned OF_FOLDER = 1U << static_cast<unsigned>(item_type::FOLDER);
constexpr unsigned OF_FILE = 1U << static_cast<unsigned>(item_type::FILE);

constexpr permission_row PERMISSION_ROWS[] = {
    {"can_download", MAY_DOWNLOAD, OF_FOLDER | OF_FILE},
    {"can_preview", MAY_SEE, OF_FILE},
    {"can_upload", MAY_UPLOAD, OF_FOLDER | OF_FILE},
    {"can_comment", MAY_SEE, OF_FILE},
    {"can_annotate", MAY_EDIT, OF_FILE},
    {"can_view_annotations_all", MAY_SEE, OF_FILE},
    {"can_view_annotations_self", MAY_SEE, OF_FILE},
    {"can_rename", MAY_EDIT, OF_FOLDER | OF_FILE},
    {"can_delete", MAY_EDIT, OF_FOLDER | OF_FILE},
    {"can_share", MAY_SHARE, OF_FOLDER | OF_FILE},
    {"can_set_share_access", MAY_SHARE, OF_FOLDER | OF_FILE},
    {"can_invite_collaborator", MAY_INVITE, OF_FOLDER | OF_FILE},
};

}  // namespace

json_ptr permissions_json_of(const call& of, const item& subject) {
  const unsigned rights = access_rights(of, subject);
  json_ptr object(json_object());
  for (const permission_row& each : PERMISSION_ROWS) {
    if ((each.kinds >> static_cast<unsigned>(subject.type) & 1U) == 0) continue;
    json_put(object.get(), each.name, json_ptr(json_boolean((rights & each.right) != 0)));
  }
  return object;
}

}  // namespace tarvex::emulator
