/* The persistent store: a map from byte strings to byte strings on disk, ordered by the bytes of the keys.
 *
 * The reference keeps each store in an SQLite file, NAME.db, in the state directory: $QUILL_STATE_DIR, which
 * must be an absolute path (else PSS_BAD_ARGUMENT), or /var/lib/quillsecurity; in context N, other than 1,
 * the folder vdc_N below it (sysmgr.h). Each directory must belong to the caller and be closed to all others
 * (mode 0700); if it is missing and its parent exists, it is created. All files have mode 0600, whatever the
 * process's umask. Only one process can have a store open at a time.
 *
 * Guarantees
 *  - A write that returned 0 is on disk. A write that returned any other status changed nothing, except if
 *    flushing it failed and the system crashed before the failure was repaired.
 *  - Deleted and replaced bytes are overwritten in the store's files: after 256 further changes at the
 *    latest, when the store is next opened or closed, and when pss2_checkpoint() is called, which the daemon does
 *    within a second of a change. Until then they may be in the write-ahead log, NAME.db-wal. The log keeps
 *    up to 4 MiB of disk space for later changes, and frees it when the disk is full, so that no change is
 *    refused because of it. While the disk is too full to copy the log into NAME.db, the log is neither
 *    overwritten nor freed.
 *  - A full disk, a failing device and a damaged file are reported as statuses. Data that can be read stays
 *    readable, and calls succeed again when the cause is removed. A program with a limit on the size of files
 *    (setrlimit(2)) must catch or ignore SIGXFSZ, which would end it before PSS_TOO_LARGE is returned. To
 *    replace a damaged NAME.db by a saved copy, delete NAME.db-wal and NAME.db-journal first: they belong to
 *    the damaged file and would be written into the copy.
 *  - Keys and values that functions return belong to the store and are valid until the next call on the
 *    handle.
 *  - Handles are small numbers from 1 on. Functions return PSS_BAD_HANDLE for any other number.
 */
#ifndef QUILLPLATFORM_PSS_H
#define QUILLPLATFORM_PSS_H

#include <stdint.h>

/* Statuses of the store: name, value and text. Every error of the system and of the database engine is
 * mapped to one of them; the engine's own message goes to the log (syslog(3)). PSS_NO_KEY is the
 * library's SECURITY_PSS_NO_KEY. */
#define PSS_STATUS_LIST(X)                                                                            \
    X(PSS_OK, 0x00000000, "success")                                                                  \
    X(PSS_BAD_HANDLE, 0x40480001, "not an open store")                                                \
    X(PSS_BAD_ARGUMENT, 0x40480002, "an argument of the store call is not valid")                     \
    X(PSS_NO_KEY, 0x40480003, "the store has no record under this key")                               \
    X(PSS_NO_STORE, 0x40480004, "the store does not exist")                                           \
    X(PSS_NOT_A_STORE, 0x40480005, "the file is not a store of this system; it is left as it is")     \
    X(PSS_WRONG_VERSION, 0x40480006, "the store was stamped by another version; it is left as it is") \
    X(PSS_IN_USE, 0x40480007, "the store is in use, by another process or another handle")            \
    X(PSS_UNSAFE, 0x40480008, "the state directory or a file in it belongs to or is open to others")  \
    X(PSS_FULL, 0x40480009, "no space left on the store's device")                                    \
    X(PSS_QUOTA, 0x4048000a, "the disk quota of the store's owner is used up")                        \
    X(PSS_TOO_LARGE, 0x4048000b, "the store's file would exceed the size allowed for files")          \
    X(PSS_IO, 0x4048000c, "reading or writing the store's device failed")                             \
    X(PSS_CORRUPT, 0x4048000d, "the store's file is damaged")                                         \
    X(PSS_READ_ONLY, 0x4048000e, "the store's file or its device is read-only")                       \
    X(PSS_DENIED, 0x4048000f, "permission to the store's files was denied")                           \
    X(PSS_NO_MEMORY, 0x40480010, "out of memory")                                                     \
    X(PSS_ENGINE, 0x40480011, "the database engine failed; the log says how")                         \
    X(PSS_NO_FILES, 0x40480012, "too many files or stores are open")                                  \
    X(PSS_MISSING, 0x40480013, "a directory on the way to the store does not exist")

#ifdef __cplusplus
#define PSS_STATUS_ROW(name, value, text) static const uint32_t name = value;
PSS_STATUS_LIST(PSS_STATUS_ROW)
#else
#define PSS_STATUS_ROW(name, value, text) name = value,
enum pss_status { PSS_STATUS_LIST(PSS_STATUS_ROW) };
#endif
#undef PSS_STATUS_ROW

/* Flags of pss2_open(): open for reading and writing, and create a missing store. */
#define PSS_READ_WRITE 3u
#define PSS_CREATE 16u

/* The largest key and the largest value of the reference in bytes. */
#define PSS_MAX_KEY 1024u
#define PSS_MAX_VALUE 65536u

/* The only mode and the only location of the cursor functions. */
#define PSS_MODE 1u
#define PSS_NEXT 3u

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A key or a value; `length` in bytes. */
typedef struct pss_descriptor {
    void* bytes;
    uint32_t length;
} pss_descriptor;

/* Opens the store `name` (1 to 64 letters, digits, '.', '_' and '-', not beginning with '.'). Returns its
 * handle, or 0 on failure, and stores the status. `parameters` are four words. The last is the expected
 * version: a store with another version is refused (PSS_WRONG_VERSION), a store without one is not. The
 * reference does not use `mode`, `zero` and the other three words. */
uint32_t pss2_open(const char* name, uint32_t flags, uint32_t mode, uint32_t zero, const uint32_t* parameters,
                   uint32_t* status);

/* Writes a version to the store; `one` is 1. Returns a status. */
uint32_t pss_version_set(uint32_t handle, uint32_t one, uint32_t version);

/* Returns the value of a key, or null and PSS_NO_KEY in *status if there is none. */
pss_descriptor* pss2_fetch(uint32_t handle, const pss_descriptor* key, uint32_t* status);

/* Creates a key or replaces its value. Returns a status. */
uint32_t pss2_store(uint32_t handle, const pss_descriptor* key, const pss_descriptor* value);

/* Deletes a key. Returns a status, PSS_NO_KEY if there is none. `count` is 1. */
uint32_t pss2_delete(uint32_t handle, const pss_descriptor* key, uint32_t count);

/* Moves the cursor of *handle to the key (PSS_OK) or, if it does not exist, to the first key after it, if any
 * (PSS_NO_KEY). Returns the status and stores it in *status. `mode` is PSS_MODE. */
uint32_t pss2_move2key(uint32_t* handle, uint32_t mode, const pss_descriptor* key, uint32_t* status);

/* Moves the cursor to the next key; `location` is PSS_NEXT. If there is none, PSS_NO_KEY, and the cursor is
 * then at no key. If its key was deleted, the cursor moves to the key that followed it. Returns the status
 * and stores it in *status. */
uint32_t pss2_move2location(uint32_t* handle, uint32_t mode, uint32_t location, uint32_t* status);

/* Return the key at the cursor, and its current value, or null and PSS_NO_KEY if the cursor is at no key or
 * its key was deleted. */
pss_descriptor* pss2_getkey(uint32_t handle, uint32_t* status);
pss_descriptor* pss2_getvalue(uint32_t handle, uint32_t* status);

/* Returns the text of a status of the store, of the library or of a transport failure. For any other
 * number returns a text with the number, in static storage that the next such call overwrites. Never
 * returns null. */
const char* syserr2str(uint32_t status);

/* ---- Not imported by the library: for the program that owns a store. */

/* Checkpoints all open stores: overwrites deleted and replaced bytes in their files. Cheap if there is
 * nothing to do. Returns 0 or the first failure; a failure loses no data, and the next call tries again. */
uint32_t pss2_checkpoint(void);

/* Checkpoints and closes a store. Returns the status of the checkpoint; the handle is closed in any case. */
uint32_t pss2_close(uint32_t handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
