/* The persistent store: bytes to bytes, in byte order of the keys, kept on disk.
 *
 * The reference keeps each store in one SQLite file, NAME.db, below the state directory: $QUILL_STATE_DIR, an
 * absolute path (PSS_BAD_ARGUMENT otherwise), else /var/lib/quillsecurity. The directory must belong to the
 * caller and be closed to everybody else (mode 0700); it is made when it is missing and its parent exists.
 * All files have mode 0600, whatever the process's umask. One process has a store open at a time.
 *
 * Promises
 *  - A write that answered 0 is on disk; one that answered anything else changed nothing, unless its flush
 *    failed and the system died before that fault was over.
 *  - What was deleted or replaced is blanked in the store's files: at the latest after 256 further changes,
 *    when the store is next opened or closed, or when pss2_settle() is called (the daemon does so within
 *    a second of a change). Until then the old bytes may stand in the file NAME.db-wal, which keeps up to
 *    4 MiB of room for the changes to come. It gives that back as soon as the disk is full, and no change is
 *    refused for it. While a full disk keeps the log from being moved into NAME.db, neither happens.
 *  - A full disk, a failing device and a damaged file are statuses; what is readable stays readable, and
 *    calls succeed again once the cause is gone. A program whose files may be limited in size (setrlimit(2))
 *    catches or ignores SIGXFSZ, which would end it before PSS_TOO_LARGE is answered.
 *    Whoever puts a saved copy of NAME.db in the place of a damaged one removes NAME.db-wal and
 *    NAME.db-journal first: what they hold belongs to the damaged file and would be written into the copy.
 *  - Bytes handed out belong to the store and stay valid until the next call on the same handle.
 *  - Handles are small numbers from 1 up; a number that is no open handle answers PSS_BAD_HANDLE.
 */
#ifndef QUILLPLATFORM_PSS_H
#define QUILLPLATFORM_PSS_H

#include <stdint.h>

/* Statuses of the store. Every error of the system and of the database engine becomes one of these; what
 * the engine itself said goes to the log (syslog(3)). No key is SECURITY_PSS_NO_KEY of the library. */
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

/* Flags of pss2_open: 3 opens for reading and writing; with PSS_CREATE added a missing store is made. */
#define PSS_READ_WRITE 3u
#define PSS_CREATE 16u

/* The largest key and value that the reference keeps, in bytes. */
#define PSS_MAX_KEY 1024u
#define PSS_MAX_VALUE 65536u

/* Modes of the cursor calls, and the one location. */
#define PSS_MODE 1u
#define PSS_NEXT 3u

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A key or a value. */
typedef struct pss_descriptor {
    void* bytes;
    uint32_t length;
} pss_descriptor;

/* Opens the store `name` (1 to 64 letters, digits, '.', '_' and '-', not beginning with '.') and answers
 * its handle, 0 on failure. parameters are four words; the last is the version that the caller expects:
 * a store stamped with another one is refused (PSS_WRONG_VERSION), one that was never stamped is not.
 * mode and zero, and the other three words, are accepted and not used by the reference. */
uint32_t pss2_open(const char* name, uint32_t flags, uint32_t mode, uint32_t zero, const uint32_t* parameters,
                   uint32_t* status);

/* Stamps the store with a version; `one` is 1. */
uint32_t pss_version_set(uint32_t handle, uint32_t one, uint32_t version);

/* The value of a key; null and PSS_NO_KEY when there is none. */
pss_descriptor* pss2_fetch(uint32_t handle, const pss_descriptor* key, uint32_t* status);

/* Writes or replaces the value of a key. */
uint32_t pss2_store(uint32_t handle, const pss_descriptor* key, const pss_descriptor* value);

/* Removes a key; PSS_NO_KEY when there is none. `count` is 1. */
uint32_t pss2_delete(uint32_t handle, const pss_descriptor* key, uint32_t count);

/* Moves the cursor of *handle to the key (PSS_OK) or, where it is absent, to the first key after it
 * (PSS_NO_KEY; there may be none). The status is both answered and stored. `mode` is PSS_MODE. */
uint32_t pss2_move2key(uint32_t* handle, uint32_t mode, const pss_descriptor* key, uint32_t* status);

/* Moves the cursor to the next key (`location` PSS_NEXT); PSS_NO_KEY when there is none, and the cursor
 * then stands nowhere. A cursor whose key was deleted moves to the key that followed it. */
uint32_t pss2_move2location(uint32_t* handle, uint32_t mode, uint32_t location, uint32_t* status);

/* The key under the cursor, and its value as it is now; null and PSS_NO_KEY where the cursor stands
 * nowhere or its key was deleted. */
pss_descriptor* pss2_getkey(uint32_t handle, uint32_t* status);
pss_descriptor* pss2_getvalue(uint32_t handle, uint32_t* status);

/* Text of a status of the store, of the library or of a transport failure. For any other number a text
 * that names it, in static storage that the next such call overwrites. Never null. */
const char* syserr2str(uint32_t status);

/* ---- Beyond what the library imports: for the program that owns a store. */

/* Blanks in the files of all open stores what was deleted or replaced. Cheap when there is nothing to do.
 * Answers the first failure; nothing is lost by one, and the next call tries again. */
uint32_t pss2_settle(void);

/* Settles and closes a store; the handle is free afterwards whatever is answered. */
uint32_t pss2_close(uint32_t handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
