// All addresses, each with what it is for and who answers.
#include "api/collaboration.h"
#include "api/comment.h"
#include "api/download.h"
#include "api/event.h"
#include "api/file.h"
#include "api/file_version.h"
#include "api/folder.h"
#include "api/item_trash.h"
#include "api/listing.h"
#include "api/metadata.h"
#include "api/metadata_template.h"
#include "api/oauth.h"
#include "api/route.h"
#include "api/search.h"
#include "api/session.h"
#include "api/session_commit.h"
#include "api/session_part.h"
#include "api/shared_link.h"
#include "api/upload.h"
#include "api/user.h"
#include "api/web_link.h"

namespace tarvex::emulator {
namespace {

using enum route_purpose;

response folder_restore(call& of) {
  return trashed_restore(of, item_type::FOLDER);
}
response folder_trash_get(call& of) {
  return trashed_get(of, item_type::FOLDER);
}
response folder_trash_purge(call& of) {
  return trashed_purge(of, item_type::FOLDER);
}
response file_restore(call& of) {
  return trashed_restore(of, item_type::FILE);
}
response file_trash_get(call& of) {
  return trashed_get(of, item_type::FILE);
}
response file_trash_purge(call& of) {
  return trashed_purge(of, item_type::FILE);
}

// Fixed segments stand before the captures that would take them for an id.
constexpr route ROUTES[] = {
    {"GET", "/2.0/users/me", API, user_me},
    {"GET", "/2.0/users", API, user_list, true},
    {"GET", "/2.0/users/:id", API, user_get},
    {"GET", "/2.0/events", API, event_list, true},
    {"OPTIONS", "/2.0/events", API, event_realtime, true},
    {"GET", "/events/:any", SIGN_IN, event_wait},
    {"GET", "/2.0/search", API, search_items, true},

    {"POST", "/2.0/comments", API, comment_create},
    {"GET", "/2.0/comments/:id", API, comment_get},
    {"PUT", "/2.0/comments/:id", API, comment_update},
    {"DELETE", "/2.0/comments/:id", API, comment_delete},
    {"GET", "/2.0/files/:id/comments", API, comments_of_file},

    {"GET", "/2.0/shared_items", API, shared_item_get, true},

    {"GET", "/2.0/folders/trash/items", API, trash_items, true},
    {"POST", "/2.0/folders", API, folder_create},
    {"GET", "/2.0/folders/:id", API, folder_get},
    {"PUT", "/2.0/folders/:id", API, folder_update},
    {"DELETE", "/2.0/folders/:id", API, folder_delete},
    {"POST", "/2.0/folders/:id", API, folder_restore},
    {"POST", "/2.0/folders/:id/copy", API, folder_copy},
    {"GET", "/2.0/folders/:id/items", API, folder_items},
    {"GET", "/2.0/folders/:id/trash", API, folder_trash_get},
    {"DELETE", "/2.0/folders/:id/trash", API, folder_trash_purge},

    // A preflight is asked of the API, the upload itself goes to another host.
    {"OPTIONS", "/2.0/files/content", API, upload_preflight},
    {"OPTIONS", "/2.0/files/:id/content", API, upload_preflight_version},
    {"GET", "/2.0/files/:id", API, file_get},
    {"PUT", "/2.0/files/:id", API, file_update},
    {"DELETE", "/2.0/files/:id", API, file_delete},
    {"POST", "/2.0/files/:id", API, file_restore},
    {"POST", "/2.0/files/:id/copy", API, file_copy},
    {"GET", "/2.0/files/:id/content", API, download_redirect},
    {"GET", "/2.0/files/:id/versions", API, file_version_list},
    {"POST", "/2.0/files/:id/versions/current", API, file_version_promote},
    {"GET", "/2.0/files/:id/versions/:id", API, file_version_get},
    {"PUT", "/2.0/files/:id/versions/:id", API, file_version_restore},
    {"DELETE", "/2.0/files/:id/versions/:id", API, file_version_delete},
    {"GET", "/2.0/files/:id/trash", API, file_trash_get},
    {"DELETE", "/2.0/files/:id/trash", API, file_trash_purge},

    {"GET", "/2.0/metadata_templates/global", API, metadata_templates_global},
    {"GET", "/2.0/metadata_templates/enterprise", API, metadata_templates_enterprise},
    {"GET", "/2.0/metadata_templates/:any", API, metadata_template_by_id},
    {"POST", "/2.0/metadata_templates/schema", API, metadata_template_create, true},
    {"GET", "/2.0/metadata_templates/:any/:any/schema", API, metadata_template_get},
    {"DELETE", "/2.0/metadata_templates/:any/:any/schema", API, metadata_template_delete, true},
    {"GET", "/2.0/files/:id/metadata", API, file_metadata_list},
    {"GET", "/2.0/folders/:id/metadata", API, folder_metadata_list},
    {"GET", "/2.0/files/:id/metadata/:any/:any", API, file_metadata_get},
    {"POST", "/2.0/files/:id/metadata/:any/:any", API, file_metadata_create},
    {"PUT", "/2.0/files/:id/metadata/:any/:any", API, file_metadata_update},
    {"DELETE", "/2.0/files/:id/metadata/:any/:any", API, file_metadata_delete},
    {"GET", "/2.0/folders/:id/metadata/:any/:any", API, folder_metadata_get},
    {"POST", "/2.0/folders/:id/metadata/:any/:any", API, folder_metadata_create},
    {"PUT", "/2.0/folders/:id/metadata/:any/:any", API, folder_metadata_update},
    {"DELETE", "/2.0/folders/:id/metadata/:any/:any", API, folder_metadata_delete},

    {"GET", "/2.0/collaborations", API, collaborations_pending, true},
    {"POST", "/2.0/collaborations", API, collaboration_create},
    {"GET", "/2.0/collaborations/:id", API, collaboration_get},
    {"PUT", "/2.0/collaborations/:id", API, collaboration_update},
    {"DELETE", "/2.0/collaborations/:id", API, collaboration_delete},
    {"GET", "/2.0/files/:id/collaborations", API, collaborations_of_file},
    {"GET", "/2.0/folders/:id/collaborations", API, collaborations_of_folder},

    {"POST", "/2.0/web_links", API, web_link_create},
    {"GET", "/2.0/web_links/:id", API, web_link_get},
    {"PUT", "/2.0/web_links/:id", API, web_link_update},
    {"DELETE", "/2.0/web_links/:id", API, web_link_delete},

    {"POST", "/api/2.0/files/content", UPLOAD, upload_file},
    {"POST", "/api/2.0/files/:id/content", UPLOAD, upload_version},
    {"POST", "/api/2.0/files/upload_sessions", UPLOAD, session_create},
    {"POST", "/api/2.0/files/:id/upload_sessions", UPLOAD, session_create_version},
    {"PUT", "/api/2.0/files/upload_sessions/:any", PART, session_put_part},
    {"GET", "/api/2.0/files/upload_sessions/:any", API, session_get},
    {"DELETE", "/api/2.0/files/upload_sessions/:any", API, session_abort},
    {"GET", "/api/2.0/files/upload_sessions/:any/parts", API, session_parts},
    {"POST", "/api/2.0/files/upload_sessions/:any/commit", API, session_commit},
    {"POST", "/api/2.0/files/upload_sessions/:any/log", API, session_log},

    {"GET", "/d/1/:any/download", DOWNLOAD, download_bytes},

    // Box has sign-in and tokens on hosts of their own, one of them below /api; here all are on one.
    {"GET", "/api/oauth2/authorize", SIGN_IN, oauth_authorise},
    {"POST", "/api/oauth2/authorize", SIGN_IN, oauth_consent},
    {"GET", "/oauth2/authorize", SIGN_IN, oauth_authorise},
    {"POST", "/oauth2/authorize", SIGN_IN, oauth_consent},
    {"POST", "/oauth2/token", SIGN_IN, oauth_token},
    {"POST", "/api/oauth2/token", SIGN_IN, oauth_token},
    {"POST", "/oauth2/revoke", SIGN_IN, oauth_revoke},
    {"POST", "/api/oauth2/revoke", SIGN_IN, oauth_revoke},
};

}  // namespace

std::span<const route> routes() {
  return ROUTES;
}

}  // namespace tarvex::emulator
