/// \file
/// The common runtime: results and error objects, modules and registries, debug handles, hashtables, mutexes and
/// conditions, cancellation, time, UUIDs and strings. Plain C; every function may be called from any thread unless its
/// comment says otherwise. Functions that return `int` return 0 for success and an errno value else.
#pragma once

#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TARVEX_API __attribute__((visibility("default")))
#define TARVEX_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#define TARVEX_NODISCARD __attribute__((warn_unused_result))

/* ---- Results -------------------------------------------------------------------------------------------------- */

/// Outcome of an operation: `TARVEX_SUCCESS`, or a handle on an error object, or `TARVEX_FAILURE`.
typedef uint32_t tarvex_result_t;

/// File offsets and byte counts; signed so that -1 can mean "to the end".
typedef int64_t tarvex_off_t;

enum { TARVEX_SUCCESS = 0 };

/// A failure without an error object behind it. No handle ever has this value.
#define TARVEX_FAILURE ((tarvex_result_t)-1)

/* ---- Modules -------------------------------------------------------------------------------------------------- */

typedef struct tarvex_version_s {
  int major;
  int minor;
  unsigned long timestamp;
  int branch_id;
} tarvex_version_t;

/// What a module offers to the runtime. Lives as long as the process; every function may be null.
typedef struct tarvex_module_descriptor_s {
  const char* module_name;
  int (*activation_func)(void);    ///< runs at the first activation; non-zero: the module stays inactive
  int (*deactivation_func)(void);  ///< runs at the last deactivation
  void (*atexit_func)(void);       ///< runs at process exit when the module is still active
  void* (*get_pointer_func)(void);
  const tarvex_version_t* version;
  const char* (*friendly_error_func)(tarvex_result_t result);  ///< a sentence for people; borrowed
} tarvex_module_descriptor_t;

/// Counts one more activation of `module`; the first runs its activation function, on the calling thread.
/// Activations may nest (an activation function may activate other modules).
/// \return what the activation function returned; non-zero leaves the count as it was.
TARVEX_API int tarvex_module_activate(const tarvex_module_descriptor_t* module);

/// Takes back one activation; the last runs the deactivation function.
/// \return what that returned; `EINVAL` when the module is not active.
TARVEX_API int tarvex_module_deactivate(const tarvex_module_descriptor_t* module);

/// This library's own module. Its activation initialises what needs it (nothing may be used before, but results,
/// objects, hashtables and strings work without it too).
TARVEX_API extern const tarvex_module_descriptor_t tarvex_i_common_module;

/* ---- Extension registries ------------------------------------------------------------------------------------- */

/// A named set of pointers. Zero-initialised is empty; guarded inside.
typedef struct tarvex_extension_registry_s {
  void* entries;
} tarvex_extension_registry_t;

/// Enters `data` (borrowed) under a copy of `name`. `module` (borrowed, may be null) is remembered as its owner.
/// \return 0; `EEXIST` when the name is taken; `ENOMEM`; `EINVAL` for a null registry or name.
TARVEX_API int tarvex_extension_registry_add(tarvex_extension_registry_t* registry, const char* name,
                                             const tarvex_module_descriptor_t* module, const void* data);

/// \return the pointer entered under `name`, borrowed; null when there is none.
TARVEX_API const void* tarvex_extension_registry_lookup(tarvex_extension_registry_t* registry, const char* name);

/// \return 0; `ENOENT` when nothing has that name.
TARVEX_API int tarvex_extension_registry_remove(tarvex_extension_registry_t* registry, const char* name);

/* ---- Objects -------------------------------------------------------------------------------------------------- */

/// A reference-counted object with a type and one pointer of instance data.
typedef struct tarvex_object_s tarvex_object_t;

/// Type of an object. Lives as long as the process.
typedef struct tarvex_object_type_s {
  const struct tarvex_object_type_s* parent_type;  ///< null for the root of all types
  void (*copy_func)(void* src, void** dst);        ///< copies instance data; null: copies carry none
  void (*destructor)(void* instance_data);         ///< releases instance data; null: nothing to release
  /// Meaning is the type family's own. For error types: a `tarvex_error_printable_func_t`, or null.
  void* class_data;
} tarvex_object_type_t;

/// The root of all object types.
TARVEX_API extern const tarvex_object_type_t TARVEX_OBJECT_TYPE_BASE_DEFINITION;

/// \return a new object with one reference and no instance data; null when memory is out.
TARVEX_API tarvex_object_t* tarvex_object_construct(const tarvex_object_type_t* type);

/// \return a new object of the same type with copied instance data (and, for errors, module and a copied cause);
/// null when memory is out or `object` is null.
TARVEX_API tarvex_object_t* tarvex_object_copy(const tarvex_object_t* object);

/// Adds a reference. Null in, nothing happens.
TARVEX_API void tarvex_object_reference(tarvex_object_t* object);

/// Drops a reference; the last releases instance data through the type's destructor, then (for errors) the cause.
/// Null in, nothing happens.
TARVEX_API void tarvex_object_free(tarvex_object_t* object);

/// \return the object's own type; null for null.
TARVEX_API const tarvex_object_type_t* tarvex_object_get_type(const tarvex_object_t* object);

/// \return whether the object's type is `type` or descends from it.
TARVEX_API bool tarvex_object_type_match(const tarvex_object_t* object, const tarvex_object_type_t* type);

/// Instance data of the object's own type: borrowed on get; on set the object takes ownership of `data` (what it held
/// before is not released).
TARVEX_API void* tarvex_object_get_instance_data(const tarvex_object_t* object);
TARVEX_API void tarvex_object_set_instance_data(tarvex_object_t* object, void* data);

/* ---- Errors --------------------------------------------------------------------------------------------------- */

/// Text of one error, without its causes: an allocated string, the caller's to free; null when memory is out.
/// Lines are separated by a line feed; no line feed at the end.
typedef char* (*tarvex_error_printable_func_t)(tarvex_object_t* error);

/// Parent of every error type.
TARVEX_API extern const tarvex_object_type_t TARVEX_ERROR_TYPE_BASE_DEFINITION;

/// Type of the errors that `tarvex_error_construct_error` makes.
TARVEX_API extern const tarvex_object_type_t TARVEX_ERROR_TYPE_GENERIC_DEFINITION;

/// Makes a generic error: a number of the module's own (`type`), where it arose, and a message.
/// \param module       who reports it; borrowed, may be null
/// \param cause        what led to it; the new error takes over the caller's reference; may be null
/// \param source_file  borrowed, must outlive the error (a literal)
/// \param source_func  likewise
/// \return the error with one reference, the caller's; null when memory is out.
TARVEX_API tarvex_object_t* tarvex_error_construct_error(const tarvex_module_descriptor_t* module,
                                                         tarvex_object_t* cause, int type, const char* source_file,
                                                         const char* source_func, int source_line, const char* format,
                                                         ...) TARVEX_PRINTF(7, 8);

/// Number of a generic error; 0 for any other object.
TARVEX_API int tarvex_error_get_type(const tarvex_object_t* error);

/// Where a generic error arose; outputs may be null; false and nothing written for any other object.
TARVEX_API bool tarvex_error_get_source(const tarvex_object_t* error, const char** file, const char** func, int* line);

/// What led to `error`, borrowed; null when there is none or `error` is no error.
TARVEX_API tarvex_object_t* tarvex_error_get_cause(const tarvex_object_t* error);

/// Replaces the cause; the error takes over the caller's reference to `cause` and drops the one it held.
TARVEX_API void tarvex_error_set_cause(tarvex_object_t* error, tarvex_object_t* cause);

/// Turns an error into a result. Takes over the caller's reference. Null gives the handle of a fixed out-of-memory
/// error, never success.
TARVEX_API tarvex_result_t tarvex_error_put(tarvex_object_t* error);

/// \return the error behind `result`, borrowed and valid until the result is released; a fixed "Operation failed."
/// error for `TARVEX_FAILURE` and for a handle that was released already; null for success.
TARVEX_API tarvex_object_t* tarvex_error_peek(tarvex_result_t result);

/// Takes the error out of `result`, which may not be used any more; the reference is the caller's. Null for success.
TARVEX_API tarvex_object_t* tarvex_error_get(tarvex_result_t result);

/// Drops a result that nobody will look at again. Success and `TARVEX_FAILURE` are fine.
TARVEX_API void tarvex_result_release(tarvex_result_t result);

/// Text of one error without its causes. \return allocated, the caller's; null when memory is out.
TARVEX_API char* tarvex_error_print(tarvex_object_t* error);

/// Text of an error and of its causes, outermost first, one after the other on lines of their own; empty texts take no
/// line. \return allocated, the caller's; null when memory is out; an empty string for null.
TARVEX_API char* tarvex_error_print_chain(tarvex_object_t* error);

/* ---- Debug log ------------------------------------------------------------------------------------------------ */

/// Where and what a module's debug log writes. All zero: nothing.
typedef struct tarvex_debug_handle_s {
  unsigned levels;            ///< enabled level bits
  unsigned timestamp_levels;  ///< levels whose lines carry a time stamp
  FILE* file;                 ///< output stream; null: nothing is written
  bool thread_ids;            ///< lines carry the thread's id
  bool using_file;            ///< `file` was opened here and is to be closed by the handle's owner
} tarvex_debug_handle_t;

/// Fills `handle` from the environment variable `env_name`; unset or empty leaves all fields zero.
///
/// The value is `LEVELS[,OUTPUT[,SWITCHES]]`:
/// - LEVELS: level names out of `level_names` joined by `|`, or `ALL`, or a number whose bits are the levels (decimal,
///   0x hexadecimal). Names ignore case. The first name is bit 1, the second 2, the third 4, and so on.
/// - OUTPUT: the file to append to (made with mode 0600, close-on-exec); each `%p` in it becomes the process id.
///   Absent or empty: standard error.
/// - SWITCHES: letters; `t`: all levels carry a time stamp, `i`: lines carry the thread's id. `t=LEVELS` as a last
///   switch gives time stamps to these levels alone.
///
/// A value that cannot be read disables the log and says so once on standard error.
/// \param level_names  names separated by blanks, lowest bit first
TARVEX_API void tarvex_debug_init(const char* env_name, const char* level_names, tarvex_debug_handle_t* handle);

/* ---- Threads -------------------------------------------------------------------------------------------------- */

/// Id of the calling thread, as debug lines print it.
TARVEX_API unsigned long tarvex_thread_self(void);

typedef pthread_mutex_t tarvex_mutex_t;
typedef pthread_cond_t tarvex_cond_t;

/// `attributes` is null for the defaults.
TARVEX_API int tarvex_mutex_init(tarvex_mutex_t* mutex, const pthread_mutexattr_t* attributes);
TARVEX_API int tarvex_mutex_destroy(tarvex_mutex_t* mutex);
TARVEX_API int tarvex_mutex_lock(tarvex_mutex_t* mutex);
TARVEX_API int tarvex_mutex_unlock(tarvex_mutex_t* mutex);

TARVEX_API int tarvex_cond_init(tarvex_cond_t* cond, const pthread_condattr_t* attributes);
TARVEX_API int tarvex_cond_destroy(tarvex_cond_t* cond);
/// May wake without a signal: callers test what they wait for.
TARVEX_API int tarvex_cond_wait(tarvex_cond_t* cond, tarvex_mutex_t* mutex);
/// `until`: absolute wall-clock time. \return `ETIMEDOUT` when it passed.
TARVEX_API int tarvex_cond_timedwait(tarvex_cond_t* cond, tarvex_mutex_t* mutex, const struct timespec* until);
TARVEX_API int tarvex_cond_signal(tarvex_cond_t* cond);
TARVEX_API int tarvex_cond_broadcast(tarvex_cond_t* cond);

/* ---- Cancellation --------------------------------------------------------------------------------------------- */

/// A wish, from another thread, that what a thread does should end. Sleeps, HTTP requests and interruptible calls of a
/// thread to which the source is bound end early; everything else goes on until it next asks.
typedef struct tarvex_cancel_s* tarvex_cancel_t;

/// Makes a source that has not been cancelled. \return 0, `ENOMEM`, or the errno of the event descriptor.
TARVEX_API int tarvex_cancel_init(tarvex_cancel_t* cancel);
/// Releases the source and sets `*cancel` to null. No thread may be bound to it any more.
TARVEX_API void tarvex_cancel_destroy(tarvex_cancel_t* cancel);
/// Asks the bound threads to end what they do. Any thread, any number of times.
TARVEX_API void tarvex_cancel_request(tarvex_cancel_t cancel);
/// Takes the wish back, before the next piece of work starts.
TARVEX_API void tarvex_cancel_reset(tarvex_cancel_t cancel);
/// Binds the source to the calling thread; null unbinds.
TARVEX_API void tarvex_cancel_bind(tarvex_cancel_t cancel);
/// The source that is bound to the calling thread, for threads that work for it; borrowed; null: none.
TARVEX_API tarvex_cancel_t tarvex_cancel_bound(void);
/// Whether the calling thread's source was cancelled; false when none is bound.
TARVEX_API bool tarvex_cancel_requested(void);
/// A descriptor that is readable once the calling thread's source was cancelled, for poll; never read or closed by
/// the caller; -1 when none is bound.
TARVEX_API int tarvex_cancel_fd(void);

/// Runs `call`, which makes one system call that may block and returns 0 or its errno, again whenever that is EINTR. A
/// cancellation of the calling thread's source ends the wait: the thread gets SIGURG, whose handler does nothing.
/// \return what the last run returned; `ECANCELED` without a run once the source is cancelled.
TARVEX_API int tarvex_cancel_interruptible(int (*call)(void* argument), void* argument);

/* ---- Time ----------------------------------------------------------------------------------------------------- */

/// The wall clock. The one place where the product reads it for pacing, token expiry and debug stamps.
TARVEX_API void tarvex_time_now(struct timeval* now);

/// Sleeps for `duration`, going on after interruptions by signals.
/// \return 0 when the time has passed; `EINVAL` at once for a negative field or a nanosecond field above 999999999;
/// `ECANCELED` as soon as the calling thread's cancellation source is cancelled.
TARVEX_API int tarvex_sleep(const struct timespec* duration);

/* ---- Hashtables ----------------------------------------------------------------------------------------------- */

/// A table from keys to data, both borrowed: a key must live as long as its entry. Not guarded: one thread at a time.
typedef struct tarvex_hashtable_s* tarvex_hashtable_t;

/// \return a number below `limit`.
typedef int (*tarvex_hashtable_hash_func_t)(void* key, int limit);
/// \return non-zero when the keys are equal.
typedef int (*tarvex_hashtable_keyeq_func_t)(void* key1, void* key2);

/// `buckets`: how many the table starts with, above 0; it grows with its entries.
/// \return 0, `ENOMEM` or `EINVAL`; on failure `*table` is null, which every other call here takes as an empty table
/// that refuses insertions.
TARVEX_API int tarvex_hashtable_init(tarvex_hashtable_t* table, int buckets, tarvex_hashtable_hash_func_t hash,
                                     tarvex_hashtable_keyeq_func_t keyeq);
/// \return 0; `EEXIST` when the key is present (nothing changes); `ENOMEM`; `EINVAL` for a table without storage.
TARVEX_API int tarvex_hashtable_insert(tarvex_hashtable_t* table, void* key, void* datum);
/// \return the datum; null when the key is absent.
TARVEX_API void* tarvex_hashtable_lookup(tarvex_hashtable_t* table, void* key);
/// \return the datum that was removed, the caller's to release; null when the key is absent.
TARVEX_API void* tarvex_hashtable_remove(tarvex_hashtable_t* table, void* key);
TARVEX_API size_t tarvex_hashtable_size(const tarvex_hashtable_t* table);
/// Releases the table, handing each datum to `release` (may be null) once, and sets `*table` to null.
/// Keys are not touched any more once the first datum is released.
TARVEX_API void tarvex_hashtable_destroy_all(tarvex_hashtable_t* table, void (*release)(void* datum));

/// Hash and equality for NUL-terminated strings, compared byte by byte.
TARVEX_API int tarvex_hashtable_string_hash(void* key, int limit);
TARVEX_API int tarvex_hashtable_string_keyeq(void* key1, void* key2);

/* ---- UUIDs and strings ---------------------------------------------------------------------------------------- */

typedef struct tarvex_uuid_s {
  unsigned char binary[16];
  char text[37];  ///< 36 characters, lower case, and NUL
} tarvex_uuid_t;

/// A new random UUID (RFC 4122, version 4).
TARVEX_API int tarvex_uuid_create(tarvex_uuid_t* uuid);

/// Formats into a new string. \return allocated, the caller's to free; null when memory is out or the format fails.
TARVEX_API char* tarvex_common_create_string(const char* format, ...) TARVEX_PRINTF(1, 2);
TARVEX_API char* tarvex_common_v_create_string(const char* format, va_list arguments) TARVEX_PRINTF(1, 0);

#ifdef __cplusplus
}
#endif
