/// \file
/// The server framework as a storage plug-in sees it: the storage interface that a plug-in registers, the operations
/// that it is handed, and the calls with which it reads, writes and reports. Plain C.
///
/// Threads. In a session process the operation thread calls the plug-in, one operation at a time; the I/O thread owns
/// control connection and data channels and runs the completion callbacks of registered reads and writes. Unless a
/// comment says otherwise a function here may be called from any thread, takes what it needs from its arguments before
/// it returns, and may block only while the peer is slow to take what was sent.
///
/// Completion. Each operation is completed exactly once, by the `finished` call of its kind; its handle is not valid
/// afterwards.
#pragma once

#include "tarvex_common.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Operations and requests ---------------------------------------------------------------------------------- */

/// One piece of work that the server asks of the plug-in; owned by the server.
typedef struct tarvex_gfs_operation_s* tarvex_gfs_operation_t;

/// Who logged in. Borrowed for the start call.
typedef struct tarvex_gfs_session_info_s {
  const char* username;     ///< login name
  const char* remote_host;  ///< peer address, numeric
} tarvex_gfs_session_info_t;

/// What a stat is to answer. Borrowed until the operation is finished.
typedef struct tarvex_gfs_stat_info_s {
  bool file_only;          ///< true: attributes of the one item; false: the listing of a folder
  bool use_symlink_info;   ///< of a link itself, not of its target
  bool include_path_stat;  ///< a listing also carries the folder itself
  bool internal;           ///< asked by the server for its own ends, not by a client
  const char* pathname;    ///< absolute, normalised
} tarvex_gfs_stat_info_t;

typedef enum tarvex_gfs_command_type_e {
  TARVEX_GFS_CMD_MKD = 1,
  TARVEX_GFS_CMD_RMD = 2,
  TARVEX_GFS_CMD_DELE = 3,
  TARVEX_GFS_CMD_SITE_AUTHZ_ASSERT = 4,
  TARVEX_GFS_CMD_SITE_RDEL = 5,
  TARVEX_GFS_CMD_RNTO = 6,
  TARVEX_GFS_CMD_RNFR = 7,
  TARVEX_GFS_CMD_CKSM = 8,
  TARVEX_GFS_CMD_SITE_CHMOD = 9,
  TARVEX_GFS_CMD_SITE_DSI = 10,
  TARVEX_GFS_CMD_SITE_SETNETSTACK = 11,
  TARVEX_GFS_CMD_SITE_SETDISKSTACK = 12,
  TARVEX_GFS_CMD_SITE_CLIENTINFO = 13,
  TARVEX_GFS_CMD_DCSC = 14,
  TARVEX_GFS_CMD_SITE_CHGRP = 15,
  TARVEX_GFS_CMD_SITE_UTIME = 16,
  TARVEX_GFS_CMD_SITE_SYMLINKFROM = 17,
  TARVEX_GFS_CMD_SITE_SYMLINK = 18,
  TARVEX_GFS_CMD_HTTP_PUT = 19,
  TARVEX_GFS_CMD_HTTP_GET = 20,
  TARVEX_GFS_CMD_HTTP_CONFIG = 21,
  TARVEX_GFS_CMD_TRNC = 22,
  TARVEX_GFS_CMD_SITE_TASKID = 23,
  TARVEX_GFS_CMD_SITE_RESTRICT = 3072,
  TARVEX_GFS_CMD_SITE_CHROOT = 3073,
  TARVEX_GFS_CMD_SITE_SHARING = 3074,
  TARVEX_GFS_CMD_UPAS = 3075,
  TARVEX_GFS_CMD_UPRT = 3076,
  TARVEX_GFS_CMD_STORATTR = 3077,
  TARVEX_GFS_CMD_WHOAMI = 3078,
  TARVEX_GFS_MIN_CUSTOM_CMD = 4096
} tarvex_gfs_command_type_t;

/// A command that is neither a transfer nor a stat. Borrowed until the operation is finished; strings that a command
/// does not use are null.
typedef struct tarvex_gfs_command_info_s {
  tarvex_gfs_command_type_t command;
  const char* pathname;       ///< absolute, normalised; the target of RNTO
  tarvex_off_t cksm_offset;   ///< CKSM: first byte
  tarvex_off_t cksm_length;   ///< CKSM: bytes; -1: to the end
  const char* cksm_alg;       ///< CKSM: algorithm's name as the client gave it
  const char* from_pathname;  ///< RNTO: the source, absolute, normalised
  int chmod_mode;
  const char* authz_assert;
  const char* chgrp_group;
  time_t utime_time;
  void* op_info;  ///< const char*: what a SITE word came with that no other field takes; null: none
} tarvex_gfs_command_info_t;

/// A retrieve or a store. Borrowed until the operation is finished.
typedef struct tarvex_gfs_transfer_info_s {
  const char* pathname;  ///< absolute, normalised
  uint64_t alloc_size;   ///< store: size in bytes that the client announced or the server learnt; 0: none
  bool truncate;         ///< store: starts the file afresh (no restart offset)
} tarvex_gfs_transfer_info_t;

/* ---- The storage interface ------------------------------------------------------------------------------------ */

/// What the server does for a storage, as bits of `descriptor`.
enum {
  TARVEX_GFS_DSI_BLOCKS = 1 << 0,           ///< operations block: they get a thread of their own
  TARVEX_GFS_DSI_SENDS = 1 << 1,            ///< has data of its own to send and takes data to store
  TARVEX_GFS_DSI_SETS_ATTRIBUTES = 1 << 2,  ///< can change modes and times of items
  TARVEX_GFS_DSI_ORDERED_DATA = 1 << 3,     ///< received data are put in order before they reach it
  TARVEX_GFS_DSI_UNORDERED_SEND = 1 << 4,   ///< may write what it sends in any order, also to stream-mode clients
  TARVEX_GFS_DSI_PARTIAL_STAT = 1 << 5,     ///< hands listings over in batches
  TARVEX_GFS_DSI_EXACT_PATHS = 1 << 6       ///< takes paths as they are: the server does not ask it for a real path
};

typedef void (*tarvex_gfs_storage_init_t)(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t* session_info);
typedef void (*tarvex_gfs_storage_destroy_t)(void* user_arg);
typedef void (*tarvex_gfs_storage_transfer_t)(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* transfer_info,
                                              void* user_arg);
typedef void (*tarvex_gfs_storage_command_t)(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* command_info,
                                             void* user_arg);
typedef void (*tarvex_gfs_storage_stat_t)(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* stat_info, void* user_arg);

/// A storage's entry points. `user_arg` is the session pointer that the start call handed over. Slots that this server
/// never calls (list, trev, active, passive, data_destroy, set_cred, buffer_send, realpath) are untyped; null is fine.
typedef struct tarvex_gfs_storage_iface_s {
  int descriptor;  ///< TARVEX_GFS_DSI_ bits
  tarvex_gfs_storage_init_t init_func;
  tarvex_gfs_storage_destroy_t destroy_func;
  tarvex_gfs_storage_transfer_t list_func;
  tarvex_gfs_storage_transfer_t send_func;
  tarvex_gfs_storage_transfer_t recv_func;
  void (*trev_func)(void);
  void (*active_func)(void);
  void (*passive_func)(void);
  void (*data_destroy_func)(void);
  tarvex_gfs_storage_command_t command_func;
  tarvex_gfs_storage_stat_t stat_func;
  void (*set_cred_func)(void);
  void (*buffer_send_func)(void);
  void (*realpath_func)(void);
} tarvex_gfs_storage_iface_t;

/// Where plug-ins enter their `const tarvex_gfs_storage_iface_t` under the storage's name.
TARVEX_API extern tarvex_extension_registry_t tarvex_i_gfs_dsi_registry;

/* ---- Errors --------------------------------------------------------------------------------------------------- */

/// Number of the generic errors of storages, for `tarvex_error_construct_error`.
enum { TARVEX_GFS_ERROR_GENERIC = 6 };

/// Type of the errors that `tarvex_gfs_ftp_response_error_construct` makes.
TARVEX_API extern const tarvex_object_type_t TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE_DEFINITION;

/// Makes an error that a client is to read: an FTP reply code (RFC 959 section 4.2), a class word and a message.
/// \param module  borrowed, may be null
/// \param cause   the new error takes over the caller's reference; may be null
/// \param code    400 to 599
/// \param class_word  such as "PATH_NOT_FOUND"; copied
/// \param format  message; null: none. Line feeds in the message separate reply lines.
/// \return the error with one reference, the caller's; null when memory is out. It prints as the class word and, on
/// the next lines, the message.
TARVEX_API tarvex_object_t* tarvex_gfs_ftp_response_error_construct(const tarvex_module_descriptor_t* module,
                                                                    tarvex_object_t* cause, int code,
                                                                    const char* class_word, const char* format, ...)
    TARVEX_PRINTF(5, 6);

/// Reply code of the first FTP response error in the chain that starts at `error`; 0 when there is none.
TARVEX_API int tarvex_gfs_ftp_response_error_code(const tarvex_object_t* error);

/// Class word of that error, borrowed; null when there is none.
TARVEX_API const char* tarvex_gfs_ftp_response_error_class(const tarvex_object_t* error);

/// Makes an error out of an errno: the message is `format` filled with the arguments, then ": " and the system's text
/// for `error_number`, as in "System error in malloc: Cannot allocate memory".
/// \param cause  taken over; may be null
/// \return the error with one reference, the caller's; null when memory is out.
TARVEX_API tarvex_object_t* tarvex_i_gfs_error_system(tarvex_object_t* cause, int error_number, const char* format, ...)
    TARVEX_PRINTF(3, 4);

/* ---- Session -------------------------------------------------------------------------------------------------- */

/// Configuration data of the session. Keys: "config" (the storage's policy text), "creds" (the user's credential
/// document), "renew-creds" (the credential read afresh).
/// \param value  an allocated text, the caller's to free; null when there is none
/// \return success also when there is none; an error when it exists and cannot be read.
TARVEX_API tarvex_result_t tarvex_gridftp_server_get_config_data(tarvex_gfs_operation_t op, const char* key,
                                                                 char** value) TARVEX_NODISCARD;

/// Announces the checksums that the storage computes itself: "NAME:COST;NAME:COST;", lowest cost preferred. Copied.
TARVEX_API tarvex_result_t tarvex_gridftp_server_set_checksum_support(tarvex_gfs_operation_t op,
                                                                      const char* algorithms);

/// Completes a session start.
/// \param session   handed back as `user_arg` of every later call; owned by the storage until `destroy_func`
/// \param username  the name to go on with; null: the login name
/// \param home_dir  where the session starts, absolute; null: "/"
TARVEX_API void tarvex_gridftp_server_finished_session_start(tarvex_gfs_operation_t op, tarvex_result_t result,
                                                             void* session, const char* username, const char* home_dir);

/* ---- Stat ----------------------------------------------------------------------------------------------------- */

typedef enum tarvex_gridftp_server_control_stat_error_e {
  TARVEX_GRIDFTP_SERVER_CONTROL_STAT_SUCCESS = 0,
  TARVEX_GRIDFTP_SERVER_CONTROL_STAT_INVALIDLINK,
  TARVEX_GRIDFTP_SERVER_CONTROL_STAT_DISCONNECTED
} tarvex_gridftp_server_control_stat_error_t;

/// Attributes of one item. Strings are the caller's; the server copies what it keeps.
typedef struct tarvex_gridftp_server_control_stat_s {
  mode_t mode;
  nlink_t nlink;
  char* name;
  char* symlink_target;
  uid_t uid;
  gid_t gid;
  tarvex_off_t size;
  time_t atime;
  time_t ctime;
  time_t mtime;
  uint32_t dev;
  uint32_t ino;
  mode_t link_mode;
  tarvex_gridftp_server_control_stat_error_t error;
} tarvex_gridftp_server_control_stat_t;

/// Hands over a batch of a listing; more follow. Waits while the client is slow to read, so that memory stays bounded.
TARVEX_API void tarvex_gridftp_server_finished_stat_partial(tarvex_gfs_operation_t op, tarvex_result_t result,
                                                            tarvex_gridftp_server_control_stat_t* stat_array,
                                                            int stat_count);

/// Completes a stat. On failure `stat_array` is not looked at.
TARVEX_API void tarvex_gridftp_server_finished_stat(tarvex_gfs_operation_t op, tarvex_result_t result,
                                                    tarvex_gridftp_server_control_stat_t* stat_array, int stat_count);

/* ---- Commands ------------------------------------------------------------------------------------------------- */

/// Seconds between progress replies that the session wants; 0: none.
TARVEX_API void tarvex_gridftp_server_get_update_interval(tarvex_gfs_operation_t op, int* seconds);

/// Sends a progress reply of a running command (for CKSM: the bytes done so far as decimal text).
TARVEX_API void tarvex_gridftp_server_intermediate_command(tarvex_gfs_operation_t op, tarvex_result_t result,
                                                           const char* text);

/// Completes a command.
/// \param text  what the reply carries (MKD: the path; CKSM: the digest); null: the command's stock text
TARVEX_API void tarvex_gridftp_server_finished_command(tarvex_gfs_operation_t op, tarvex_result_t result,
                                                       const char* text);

/* ---- Transfers ------------------------------------------------------------------------------------------------ */

/// Starts a transfer: the 150 reply goes out and the data channel is opened. Call it once, before any read or write.
/// `event_mask` and `event_arg` are reserved: 0.
TARVEX_API void tarvex_gridftp_server_begin_transfer(tarvex_gfs_operation_t op, int event_mask, void* event_arg);

/// The next range of the file that the client wants. `*length`: -1: from `*offset` to the end of the file; 0: no more.
/// After a range of -1 the next call gives 0.
TARVEX_API void tarvex_gridftp_server_get_read_range(tarvex_gfs_operation_t op, tarvex_off_t* offset,
                                                     tarvex_off_t* length);

/// Where the received data belong. `*length`: -1: as many as come.
TARVEX_API void tarvex_gridftp_server_get_write_range(tarvex_gfs_operation_t op, tarvex_off_t* offset,
                                                      tarvex_off_t* length);

/// The modification time that the client announced for the stored file; -1: none.
TARVEX_API tarvex_result_t tarvex_gridftp_server_get_recv_modification_time(tarvex_gfs_operation_t op,
                                                                            time_t* modification_time);

/// How the server likes its buffers: bytes each, and how many in flight.
TARVEX_API void tarvex_gridftp_server_get_block_size(tarvex_gfs_operation_t op, size_t* block_size);
TARVEX_API void tarvex_gridftp_server_get_optimal_concurrency(tarvex_gfs_operation_t op, int* count);

/// A registered read is over: `nbytes` are in `buffer`, which belong at `offset` of the file. `eof`: no more will
/// come; the last bytes may come with it. A read that failed has an error (released by the server after the call) and
/// `eof` set. Never 0 bytes without `eof`.
typedef void (*tarvex_gridftp_server_read_cb_t)(tarvex_gfs_operation_t op, tarvex_result_t result,
                                                unsigned char* buffer, size_t nbytes, tarvex_off_t offset, bool eof,
                                                void* user_arg);

/// A registered write is over; the buffer is the caller's again.
typedef void (*tarvex_gridftp_server_write_cb_t)(tarvex_gfs_operation_t op, tarvex_result_t result,
                                                 unsigned char* buffer, size_t nbytes, void* user_arg);

/// Asks for the next `length` bytes that the client sends, in file order. A storage that keeps what it has of a broken
/// transfer (an upload in parts) fills one block at a time: it asks for the whole block, then for just what is left of
/// it, until it is full. So the server knows the block that could not be filled, and where the transfer can go on.
/// Reads complete in the order in which they were registered, each with up to `length` bytes. A read of 0 bytes
/// completes with `eof` once the data are over; data that come instead, beyond what was announced, complete it with an
/// error. The buffer is the server's until the callback, which runs on the I/O thread and never inside this call.
/// \return an error when no read can be registered; the callback is not called then.
TARVEX_API tarvex_result_t tarvex_gridftp_server_register_read(tarvex_gfs_operation_t op, unsigned char* buffer,
                                                               size_t length, tarvex_gridftp_server_read_cb_t callback,
                                                               void* user_arg) TARVEX_NODISCARD;

/// Asks that the transfer's writes may come in any order within a range, each byte once, from the next one on: so it is
/// in extended block mode, where every block says where it belongs.
/// \return whether they may; else each has to follow the one before, as below.
TARVEX_API bool tarvex_gridftp_server_allow_unordered_writes(tarvex_gfs_operation_t op);

/// Sends `length` bytes that belong at `offset` of the file. Writes complete in the order in which they were
/// registered. On a stream-mode data channel, bytes below what was sent already are dropped (a download that is tried
/// again goes on where it stopped), and bytes beyond the next one expected are an error. The buffer is the server's
/// until the callback, which runs on the I/O thread and never inside this call.
/// \param stripe_ndx  reserved: 0
/// \return an error when the data channel is gone or the operation was cancelled; the callback is not called then.
TARVEX_API tarvex_result_t tarvex_gridftp_server_register_write(tarvex_gfs_operation_t op, unsigned char* buffer,
                                                                size_t length, tarvex_off_t offset, int stripe_ndx,
                                                                tarvex_gridftp_server_write_cb_t callback,
                                                                void* user_arg) TARVEX_NODISCARD;

/// Sends as many of `length` bytes that belong at `offset` as the client takes at this moment, from the calling thread.
/// For whoever has large amounts at hand this costs less than a registered write, since no other thread is woken and
/// the bytes are still in this core's cache; a registered write is for what is left. Nothing goes while registered
/// writes wait.
/// \param sent  takes how many bytes are out and need no further write; those that were sent before count as well
/// \return an error as for a registered write; `sent` is 0 then.
TARVEX_API tarvex_result_t tarvex_gridftp_server_write_now(tarvex_gfs_operation_t op, const unsigned char* buffer,
                                                           size_t length, tarvex_off_t offset,
                                                           size_t* sent) TARVEX_NODISCARD;

/// Counts bytes that have reached the storage, for markers and the log.
TARVEX_API void tarvex_gridftp_server_update_bytes_recvd(tarvex_gfs_operation_t op, tarvex_off_t nbytes);

/// Completes a transfer: outstanding writes are sent first, the data channel is closed, the final reply goes out.
TARVEX_API void tarvex_gridftp_server_finished_transfer(tarvex_gfs_operation_t op, tarvex_result_t result);

#ifdef __cplusplus
}
#endif
