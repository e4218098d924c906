/// \file
/// Records, settings and functions that the plug-in's sources share. Plain C as far as it goes, so that other languages
/// can call what is exported. Unless a comment says otherwise: functions run on the framework's operation thread and
/// may block; strings inside records are owned, allocated copies; records are zero-filled before they are filled in; a
/// `tarvex_result_t` that is not success is the caller's to pass on or release.
#pragma once

#include "tarvex_common.h"
#include "tarvex_dsi_rest.h"
#include "tarvex_gridftp_server.h"

#include <jansson.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Settings ------------------------------------------------------------------------------------------------- */

TARVEX_API extern int tarvex_i_box_api_per_second;       ///< API requests per second and user; the policy may set it
TARVEX_API extern int tarvex_i_box_upload_per_second;    ///< upload requests per second and user
TARVEX_API extern int tarvex_i_box_max_delay;            ///< longest wait for a Retry-After, seconds
TARVEX_API extern int tarvex_i_box_max_retries;          ///< kept for configurations that name it; nothing reads it
TARVEX_API extern int tarvex_i_box_progress_timeout_ms;  ///< a request without progress for so long is abandoned
TARVEX_API extern int tarvex_i_box_chunked_minimum;      ///< announced sizes above this are uploaded in parts
TARVEX_API extern int tarvex_i_box_commit_attempts;      ///< commits of an upload session, the first included
/// What a download for a checksum does with the digests and the count when it is tried again: 0: they go on, 1: they
/// start afresh.
TARVEX_API extern int tarvex_i_box_cksm_restart;
/// What becomes of an upload session that nobody can continue any more, because its login ends or its path is stored
/// afresh: 0: it stays at Box until Box drops it, and keeps its path from being stored afresh in parts by this login;
/// 1: it is deleted, except after a commit that Box may have carried out.
TARVEX_API extern int tarvex_i_box_abort_sessions;
/// The older name of a part of that: 1: what is open at the end of a login, its commit not tried, is deleted.
TARVEX_API extern int tarvex_i_box_abort_uploads;
/// How a store replaces a file: 0: the file is deleted first, 1: it gets a new version.
TARVEX_API extern int tarvex_i_box_replace_as_version;
/// Parts of an upload session that are on their way at once, a connection each.
TARVEX_API extern int tarvex_i_box_part_concurrency;
TARVEX_API extern int tarvex_i_box_part_memory;  ///< bytes that the parts of one upload take at once, at least one part
/// What spaces parts when several are on their way at once: 0: a bucket of 240 a minute, 1: the pacing of uploads. All
/// sessions of the Box user share both.
TARVEX_API extern int tarvex_i_box_part_paced;
TARVEX_API extern int tarvex_i_box_download_streams;  ///< ranges of a file that are fetched at once, a connection each
TARVEX_API extern int tarvex_i_box_download_stream_minimum;  ///< below so many bytes there is one stream
TARVEX_API extern int tarvex_i_box_download_range;           ///< bytes of a range
TARVEX_API extern int tarvex_i_box_page_limit;  ///< items that Box is asked for with each page of a listing
/// What an empty "next_marker" means: 0: there is one more page, 1: this was the last one.
TARVEX_API extern int tarvex_i_box_empty_marker_ends;
/// What becomes of items that are neither files nor folders: 0: they are passed over, 1: they answer to their names.
TARVEX_API extern int tarvex_i_box_web_links;
TARVEX_API extern const char* tarvex_i_box_retry_path;   ///< template of the directory of the pacing files
TARVEX_API extern const char* tarvex_i_box_upload_path;  ///< template of the directory of the upload state files

/// Smallest and largest value of the setting NAME: `tarvex_i_box_NAME_min` and `tarvex_i_box_NAME_max`, both included.
/// They are for who fills the settings in; the plug-in itself does not look at them.
#define TARVEX_BOX_RANGE(name) TARVEX_API extern const int tarvex_i_box_##name##_min, tarvex_i_box_##name##_max
TARVEX_BOX_RANGE(api_per_second);
TARVEX_BOX_RANGE(upload_per_second);
TARVEX_BOX_RANGE(max_delay);
TARVEX_BOX_RANGE(max_retries);
TARVEX_BOX_RANGE(progress_timeout_ms);
TARVEX_BOX_RANGE(chunked_minimum);
TARVEX_BOX_RANGE(commit_attempts);
TARVEX_BOX_RANGE(cksm_restart);
TARVEX_BOX_RANGE(abort_sessions);
TARVEX_BOX_RANGE(abort_uploads);
TARVEX_BOX_RANGE(replace_as_version);
TARVEX_BOX_RANGE(part_concurrency);
TARVEX_BOX_RANGE(part_memory);
TARVEX_BOX_RANGE(part_paced);
TARVEX_BOX_RANGE(download_streams);
TARVEX_BOX_RANGE(download_stream_minimum);
TARVEX_BOX_RANGE(download_range);
TARVEX_BOX_RANGE(page_limit);
TARVEX_BOX_RANGE(empty_marker_ends);
TARVEX_BOX_RANGE(web_links);
#undef TARVEX_BOX_RANGE

/* ---- Modules and debug log ------------------------------------------------------------------------------------ */

TARVEX_API extern const tarvex_module_descriptor_t tarvex_gridftp_server_box_module;  ///< the plug-in
TARVEX_API extern const tarvex_module_descriptor_t tarvex_i_box_common_module;        ///< debug log and REST client

enum {
  TARVEX_BOX_TRACE = 1,
  TARVEX_BOX_DEBUG = 2,
  TARVEX_BOX_INFO = 4,
  TARVEX_BOX_WARN = 8,
  TARVEX_BOX_ERROR = 16,
  TARVEX_BOX_ALL = 31
};

/// Filled from the environment variable TARVEX_BOX_DEBUG at activation.
TARVEX_API extern tarvex_debug_handle_t tarvex_i_TARVEX_BOX_debug_handle;

/// Names of the levels, indexed by the level's bit value; null between them.
TARVEX_API extern const char* tarvex_i_box_debug_level_names[17];

/// Prints to the debug stream, after the thread's id if the handle asks for it; nothing without a stream.
TARVEX_API void tarvex_i_TARVEX_BOX_debug_printf(const char* format, ...) TARVEX_PRINTF(1, 2);

/// The same after the wall-clock time in seconds with nine decimals.
TARVEX_API void tarvex_i_TARVEX_BOX_debug_time_printf(const char* format, ...) TARVEX_PRINTF(1, 2);

/// Writes raw bytes to the debug stream; nothing without a stream.
TARVEX_API void tarvex_i_TARVEX_BOX_debug_fwrite(const void* buffer, size_t size, size_t count);

/* ---- Errors --------------------------------------------------------------------------------------------------- */

/// Error with an ordered list of key and value strings, each of which prints as a line `key: "value"`. Its instance
/// data is a `tarvex_dsi_rest_key_array_t`.
TARVEX_API extern const tarvex_object_type_t TARVEX_BOX_ERROR_TYPE_DEFINITION;

/// Makes a box error of copies of the pairs in `info` (null: none). A pair with an empty value, or a first pair that
/// does not print before one that does, must not be given: printing such an error stops the process.
/// \param module, cause  accepted and not recorded
/// \return the error, the caller's; null when memory is out.
TARVEX_API tarvex_object_t* tarvex_box_error_construct(const tarvex_module_descriptor_t* module, tarvex_object_t* cause,
                                                       const tarvex_dsi_rest_key_array_t* info);

/// Gives a constructed object of the box error type its pairs.
/// \return `object`; null when it is of another type or memory is out.
TARVEX_API tarvex_object_t* tarvex_box_error_initialize(tarvex_object_t* object,
                                                        const tarvex_module_descriptor_t* module,
                                                        tarvex_object_t* cause,
                                                        const tarvex_dsi_rest_key_array_t* info);

/// \return the value under `key` in the first box error of the chain that starts at `error`; borrowed; null: none.
TARVEX_API const char* tarvex_box_error_get_info(tarvex_object_t* error, const char* key);

/// Appends the pairs whose keys are new to a box error. More than one new key in a call: nothing is appended.
TARVEX_API void tarvex_box_error_add_info(tarvex_object_t* error, const tarvex_dsi_rest_key_array_t* info);

/* ---- Request pacing ------------------------------------------------------------------------------------------- */

/// Layout of a pacing file, native byte order.
struct tarvex_box_retry_shared_s {
  int64_t not_until;     ///< reserved
  struct timespec last;  ///< when the last request of any process was stamped
};

typedef struct tarvex_box_retry_s {
  bool is;                                   ///< created
  int fd;                                    ///< the pacing file; -1: none could be used
  unsigned delay;                            ///< least spacing between requests, microseconds
  struct tarvex_box_retry_shared_s* shared;  ///< the mapped file, or a private record
} tarvex_box_retry_t;

/// Opens the pacing file `name` under the retry path, making both when missing. Always yields a usable handle: where no
/// file can be used, pacing holds within this process.
/// \param per_second  requests per second; 0: without spacing
TARVEX_API void tarvex_i_box_retry_state_create(const char* name, int per_second, tarvex_box_retry_t* retry);
TARVEX_API void tarvex_i_box_retry_state_destroy(tarvex_box_retry_t* retry);

/// Takes the write lock on the pacing file, waiting for it or not. The lock is the process's, not the thread's.
TARVEX_API tarvex_result_t tarvex_i_box_retry_state_lock(tarvex_box_retry_t* retry, bool wait) TARVEX_NODISCARD;
TARVEX_API tarvex_result_t tarvex_i_box_retry_state_unlock(tarvex_box_retry_t* retry) TARVEX_NODISCARD;

/// Waits before a request: `retry_after` seconds (0: none; at most `tarvex_i_box_max_delay`), then until the spacing
/// from the last request is kept, and stamps the time. `retry` null: the first wait only.
TARVEX_API void tarvex_i_box_retry_delay(uint64_t retry_after, tarvex_box_retry_t* retry);

/* ---- Session -------------------------------------------------------------------------------------------------- */

/// One login. Owned by the framework between start and destroy; one thread at a time.
typedef struct tarvex_box_session_s {
  char* username;
  char* user_id;        ///< Box user id
  uint64_t max_upload;  ///< largest file that the user may upload, bytes
  char* access_token;
  time_t access_token_exp;               ///< seconds, UTC
  tarvex_hashtable_t cache;              ///< path -> tarvex_box_path_info_t
  tarvex_hashtable_t upload_state;       ///< path -> tarvex_box_upload_session_t, and a path record under "/"
  tarvex_box_retry_t user_retry;         ///< pacing of API requests
  tarvex_box_retry_t user_upload_retry;  ///< pacing of upload requests
} tarvex_box_session_t;

/// Entry points of the storage interface; each completes its operation exactly once.
TARVEX_API void tarvex_i_box_start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t* session_info);
TARVEX_API void tarvex_i_box_destroy(void* session);
TARVEX_API void tarvex_i_box_stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* stat_info, void* user_arg);
TARVEX_API void tarvex_i_box_command(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info, void* user_arg);
TARVEX_API void tarvex_i_box_send(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* transfer_info, void* user_arg);
TARVEX_API void tarvex_i_box_recv(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* transfer_info, void* user_arg);

/// Reads the storage gateway policy.
/// \param text  JSON object; "user_api_rate_limit" is an integer, 0 or absent leaves the rate
/// \param rate  takes requests per second
TARVEX_API tarvex_result_t tarvex_box_config_parse_json(const char* text, int* rate) TARVEX_NODISCARD;

/// Renews the session's token when fewer than 100 seconds remain, and judges by its expiry alone.
/// \return 500 INTERNAL_ERROR when the renewed token is about to expire as well, or the session never had one.
TARVEX_API tarvex_result_t tarvex_box_token_refresh(tarvex_box_session_t* session,
                                                    tarvex_gfs_operation_t op) TARVEX_NODISCARD;

/// Obtains the credential ("creds"), or renews it ("renew-creds") when it is about to expire. Success without a change
/// when the framework has none.
TARVEX_API tarvex_result_t tarvex_box_get_kelm_token(tarvex_box_session_t* session,
                                                     tarvex_gfs_operation_t op) TARVEX_NODISCARD;

/// Reads a time with a fraction and a numeric offset, such as 2030-01-01T00:00:00.000000-05:00.
TARVEX_API tarvex_result_t tarvex_i_box_parse_date(const char* text, time_t* time) TARVEX_NODISCARD;

/// Expands $HOME and $LOGNAME of the real user's password entry.
/// \param result  an allocated string, the caller's; null on failure
TARVEX_API tarvex_result_t tarvex_box_evaluate_path(const char* path_template, char** result) TARVEX_NODISCARD;

/* ---- Box answers ---------------------------------------------------------------------------------------------- */

/// Turns an answer of Box into the result to report.
/// \param response     its first desired header is Retry-After
/// \param document     the parsed body, borrowed; null: none
/// \param retry        takes whether the request may be tried again; may be null
/// \param retry_after  takes the seconds that Box asked to wait, else 0; may be null
/// \return success for 4xx answers without a body that have no meaning here.
TARVEX_API tarvex_result_t tarvex_box_translate_response(const tarvex_dsi_rest_response_arg_t* response,
                                                         json_t* document, bool* retry,
                                                         unsigned long* retry_after) TARVEX_NODISCARD;

/* ---- Items ---------------------------------------------------------------------------------------------------- */

enum { TARVEX_BOX_FOLDER = 1, TARVEX_BOX_FILE = 2, TARVEX_BOX_UNKNOWN = 3 };

/// One Box folder or file. In the path cache `name`, `id` and `sha1` are part of the record's allocation: they are
/// neither replaced nor released but with it.
typedef struct tarvex_box_path_info_s {
  char* name;  ///< Box's name; in the path cache the full path, which is the key
  char* id;
  char* parent_id;    ///< "0" when Box names no parent; null for the root
  int type;           ///< TARVEX_BOX_FOLDER, TARVEX_BOX_FILE or TARVEX_BOX_UNKNOWN
  uint64_t size;      ///< bytes
  time_t modtime;     ///< seconds, UTC
  char* md5;          ///< lower-case hex, 32 digits; null: not known
  char* sha1;         ///< lower-case hex, 40 digits; null: not known
  bool listed;        ///< the folder's complete listing is in the path cache
  bool has_metadata;  ///< the item has a metadata instance
  bool freeme;        ///< the record itself is allocated
  /// Box's etag plus one, since Box counts an item's changes in it; 0: not known.
  uint32_t next_etag;
} tarvex_box_path_info_t;

/// Fills a zeroed record from a Box item. On failure what was filled stays, the caller's to free.
/// \return a generic error for a missing type, an unreadable date (all else is filled) or parent.
TARVEX_API tarvex_result_t tarvex_box_object_info_parse(json_t* json, tarvex_box_path_info_t* info) TARVEX_NODISCARD;

/// \return an allocated deep copy; null for null, for a record without name or id, and when memory is out.
TARVEX_API tarvex_box_path_info_t* tarvex_box_path_info_copy(const tarvex_box_path_info_t* info);

/// Releases the strings, and the record when it was made by copy. Null in, nothing happens.
TARVEX_API void tarvex_box_path_info_free(tarvex_box_path_info_t* info);

/// Turns a record with a name into a stat entry, whose name is the caller's to free.
TARVEX_API tarvex_result_t tarvex_box_info_to_stat(const tarvex_box_session_t* box, const tarvex_box_path_info_t* info,
                                                   tarvex_gridftp_server_control_stat_t* stat_out) TARVEX_NODISCARD;

/// Takes an item of a listing: its record (with Box's name) is lent for the call. Anything but success stops the
/// listing with it.
typedef tarvex_result_t (*tarvex_box_list_entry_cb_t)(tarvex_box_session_t* box, const char* base_path,
                                                      tarvex_box_path_info_t* path_info, void* callback_arg);

/// Lists a folder page by page (GET /folders/:id/items) into the path cache and to `callback`.
/// \param path      the folder's path: base of the cache keys
/// \param callback  null: none
TARVEX_API tarvex_result_t tarvex_box_get_folder_items(tarvex_box_session_t* box, const char* folder_id,
                                                       const char* path, tarvex_box_list_entry_cb_t callback,
                                                       void* callback_arg) TARVEX_NODISCARD;

/// Fetches one file with its metadata (GET /files/:id) into the path cache and to `callback`.
TARVEX_API tarvex_result_t tarvex_box_get_file_info(tarvex_box_session_t* box, const char* file_id,
                                                    const char* parent_path, tarvex_box_list_entry_cb_t callback,
                                                    void* callback_arg) TARVEX_NODISCARD;

/// Finds the item at an absolute path, listing folders as needed.
/// \param entry_out   takes the cache's record, or null when there is no such item; may be null
/// \param parent_out  takes the record of the folder that holds the last component, if that folder exists; may be null
/// \return 550 PATH_NOT_FOUND (both outputs written), or a listing's error (neither written). The records are valid
/// until their folder is listed again or their entry changes.
TARVEX_API tarvex_result_t tarvex_box_path_resolve(tarvex_box_session_t* box, const char* path,
                                                   tarvex_box_path_info_t** entry_out,
                                                   tarvex_box_path_info_t** parent_out) TARVEX_NODISCARD;

/// State of one listing on its way to the framework.
typedef struct tarvex_box_stat_state_s {
  tarvex_gfs_operation_t op;
  tarvex_gfs_stat_info_t* stat_info;
  tarvex_gridftp_server_control_stat_t* stat_array;  ///< 100 entries
  int stat_count;                                    ///< entries filled
} tarvex_box_stat_state_t;

/// The two forms of `tarvex_i_box_stat`, and the listing's callback; `callback_arg` is a `tarvex_box_stat_state_t`.
TARVEX_API void tarvex_i_box_stat_single(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* stat_info,
                                         tarvex_box_session_t* box);
TARVEX_API void tarvex_i_box_stat_multi(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* stat_info,
                                        tarvex_box_session_t* box);
TARVEX_API tarvex_result_t tarvex_box_stat_entry(tarvex_box_session_t* box, const char* base_path,
                                                 tarvex_box_path_info_t* path_info,
                                                 void* callback_arg) TARVEX_NODISCARD;

/* ---- Session caches ------------------------------------------------------------------------------------------- */

/// Makes a path cache that holds the Box root under "/".
TARVEX_API tarvex_result_t tarvex_box_path_cache_init(tarvex_hashtable_t* cache) TARVEX_NODISCARD;

/// Enters a copy of `info` under `base_path`/name (null or empty base: under its name), replacing what was there.
TARVEX_API tarvex_result_t tarvex_box_path_cache_update(tarvex_hashtable_t* cache, const tarvex_box_path_info_t* info,
                                                        const char* base_path) TARVEX_NODISCARD;

/// \return the cache's record, valid until its entry changes; null: none.
TARVEX_API tarvex_box_path_info_t* tarvex_box_path_cache_query(tarvex_hashtable_t* cache, const char* path);

/// Drops an entry; the root's stays. Always success.
TARVEX_API tarvex_result_t tarvex_box_path_cache_remove(tarvex_hashtable_t* cache, const char* path);

/* ---- Commands ------------------------------------------------------------------------------------------------- */

TARVEX_API void tarvex_i_box_mkdir(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info,
                                   tarvex_box_session_t* box);
TARVEX_API void tarvex_i_box_delete(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info,
                                    tarvex_box_session_t* box);
TARVEX_API void tarvex_i_box_rename(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info,
                                    tarvex_box_session_t* box);
TARVEX_API void tarvex_i_box_cksm(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info,
                                  tarvex_box_session_t* box);

/// Deletes an item and drops it from the path cache, whatever Box answers.
/// \param path_info  a record of the path cache; gone after a request was sent
/// \param type       command type that says what kind of item must be there: DELE, RMD or SITE RDEL
TARVEX_API tarvex_result_t tarvex_i_box_delete_object(tarvex_box_session_t* box, tarvex_box_path_info_t* path_info,
                                                      int type) TARVEX_NODISCARD;

/// Progress and digests of a checksum command.
typedef struct tarvex_i_box_cksm_state_s {
  tarvex_gfs_operation_t op;
  int response_freq;  ///< seconds between progress replies
  int response_due;   ///< when the next one is due, seconds since the epoch; 0: none wanted
  tarvex_off_t total_bytes;
  MD5_CTX md5_ctx;
  SHA_CTX sha_ctx;
} tarvex_i_box_cksm_state_t;

/// Data callback of the checksum's download; `callback_arg` is a `tarvex_i_box_cksm_state_t`. Always success.
TARVEX_API tarvex_result_t tarvex_i_box_cksm_cb(void* callback_arg, void* buffer, size_t buffer_length);

/// Stores a string property in the item's global properties (POST or PUT /metadata/global/properties).
/// \param path_info  `has_metadata` tells which of the two, and is set on success
TARVEX_API tarvex_result_t tarvex_i_box_set_metadata(tarvex_box_session_t* box, tarvex_box_path_info_t* path_info,
                                                     const char* key, const char* value) TARVEX_NODISCARD;

/* ---- Uploads -------------------------------------------------------------------------------------------------- */

/// One open upload session.
typedef struct tarvex_box_upload_session_s {
  char* id;    ///< Box's upload session id
  char* name;  ///< path of the file; the table's key
  int num_parts;
  uint64_t part_size;   ///< bytes of every part but the last
  uint64_t total_size;  ///< bytes that the client announced
  json_t* part_array;   ///< parts sent so far, in order; null once a commit was tried
  MD5_CTX md5_ctx;      ///< of all parts sent so far
  SHA_CTX sha1_ctx;     ///< of all parts sent so far
  bool refused;         ///< Box refused the commit, and has not carried it out; kept when sessions are aborted
  bool replaces;        ///< the file gets a new version; kept, as is the next, when files are replaced so
  uint32_t next_etag;   ///< of that file when the session began
  /// Parts that Box has behind one that failed, by their numbers in decimal, when several were on their way at once;
  /// null: none.
  json_t* parts_beyond;
} tarvex_box_upload_session_t;

/// Makes an empty upload-session table.
TARVEX_API tarvex_result_t tarvex_box_upload_state_init(tarvex_hashtable_t* table) TARVEX_NODISCARD;

/// Enters `upload` under its name; the table owns it then. A name that is taken is refused.
/// \param path  not consulted
TARVEX_API tarvex_result_t tarvex_box_upload_state_update(tarvex_hashtable_t* table,
                                                          tarvex_box_upload_session_t* upload,
                                                          const char* path) TARVEX_NODISCARD;

/// \return the table's record; null: none.
TARVEX_API tarvex_box_upload_session_t* tarvex_box_upload_state_query(tarvex_hashtable_t* table, const char* path);

/// Drops and releases an entry. Always success.
TARVEX_API tarvex_result_t tarvex_box_upload_state_remove(tarvex_hashtable_t* table, const char* path);

/// Releases a record. Null in, nothing happens.
TARVEX_API void tarvex_box_upload_session_free(tarvex_box_upload_session_t* info);

/// Fills a zeroed record from Box's upload session; absent members are no errors.
TARVEX_API tarvex_result_t tarvex_box_upload_session_parse(json_t* json,
                                                           tarvex_box_upload_session_t* info) TARVEX_NODISCARD;

/// Uploads in one request (POST /files/content), or through an upload session.
TARVEX_API tarvex_result_t tarvex_i_box_recv_small(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* info,
                                                   tarvex_box_session_t* box,
                                                   tarvex_box_path_info_t* parent) TARVEX_NODISCARD;
TARVEX_API tarvex_result_t tarvex_i_box_recv_chunked(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* info,
                                                     tarvex_box_session_t* box,
                                                     tarvex_box_path_info_t* parent) TARVEX_NODISCARD;

/// The steps of an upload through a session: create (the record is the table's), parts, commit.
TARVEX_API tarvex_result_t tarvex_i_box_create_upload_session(tarvex_box_session_t* box,
                                                              tarvex_gfs_transfer_info_t* info,
                                                              tarvex_box_path_info_t* parent,
                                                              tarvex_box_upload_session_t** upload) TARVEX_NODISCARD;
TARVEX_API tarvex_result_t tarvex_i_box_upload_parts(tarvex_gfs_operation_t op, tarvex_box_session_t* box,
                                                     tarvex_gfs_transfer_info_t* info,
                                                     tarvex_box_upload_session_t* upload) TARVEX_NODISCARD;
TARVEX_API tarvex_result_t tarvex_i_box_commit_upload(tarvex_gfs_operation_t op, tarvex_box_session_t* box,
                                                      tarvex_gfs_transfer_info_t* info, tarvex_box_path_info_t* parent,
                                                      tarvex_box_upload_session_t* upload) TARVEX_NODISCARD;

/* ---- Upload state file ---------------------------------------------------------------------------------------- */

/// Layout of an upload state file, native byte order.
struct tarvex_box_upload_state_shared_s {
  char id[128];
  int32_t num_parts;
  uint64_t part_size;
  uint64_t total_size;
  MD5_CTX md5_ctx;
  SHA_CTX sha1_ctx;
  char name[4096];
  char part_array[];
};

typedef struct tarvex_box_upload_state_s {
  bool is;                                          ///< created
  int fd;                                           ///< the state file; -1: none could be used
  struct tarvex_box_upload_state_shared_s* shared;  ///< the mapped file, or a private block
} tarvex_box_upload_state_t;

/// Opens or makes the state file `name` under the upload path. Always yields a usable handle, private where no file
/// can be used. The lock is advisory and the process's; writers to `shared` hold it.
TARVEX_API void tarvex_i_box_upload_state_create(const char* name, tarvex_box_upload_state_t* upload_state);
TARVEX_API tarvex_result_t tarvex_i_box_upload_state_lock(tarvex_box_upload_state_t* upload_state,
                                                          bool blocking) TARVEX_NODISCARD;
TARVEX_API tarvex_result_t tarvex_i_box_upload_state_unlock(tarvex_box_upload_state_t* upload_state) TARVEX_NODISCARD;
TARVEX_API void tarvex_i_box_upload_state_destroy(tarvex_box_upload_state_t* upload_state);

#ifdef __cplusplus
}
#endif
