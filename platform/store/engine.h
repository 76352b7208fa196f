// The interface between the store's C functions and a database engine: one file of records, in byte order of
// their keys.
//
// An engine knows nothing of handles, cursors and descriptors; store/pss.cc implements those once for all
// engines. Functions return a PSS status of quillplatform/pss.h and throw std::bad_alloc when memory runs
// out.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "quillplatform/pss.h"

namespace quill {

struct Record {
    std::string key;
    std::string value;
    bool intact = true;  // false: the value failed its checksum and must not be used
};

class Engine {
 public:
    virtual ~Engine() = default;

    // On success, stores the value in `value`. Returns PSS_NO_KEY if there is no such record, PSS_CORRUPT if
    // its checksum is wrong.
    virtual uint32_t fetch(std::string_view key, std::string& value) = 0;

    // Find the first record whose key is equal to or greater than `key`, or greater than `key`; no record
    // need have `key`. Return PSS_NO_KEY if there is none. A damaged record is found, with `intact` false.
    virtual uint32_t at_or_after(std::string_view key, Record& found) = 0;
    virtual uint32_t after(std::string_view key, Record& found) = 0;

    // Change one record. On success the change is on disk; on failure nothing has changed. erase() returns
    // PSS_NO_KEY if there is no such record.
    virtual uint32_t put(std::string_view key, std::string_view value) = 0;
    virtual uint32_t erase(std::string_view key) = 0;

    // Sets the store's version; that of a new store is 0.
    virtual uint32_t set_version(uint32_t version) = 0;

    // Overwrites with zeros what was erased or replaced so far and may still stand in the engine's files.
    virtual uint32_t checkpoint() = 0;
};

// Opens the store in the file `path`; with `create`, creates it if nothing has that name. The caller has
// checked the folder. Returns PSS_NOT_A_STORE for any other kind of file and PSS_WRONG_VERSION for a store
// whose version is neither 0 nor `version`; both are left unchanged. Failures are logged.
uint32_t open_sqlite_engine(const std::string& path, bool create, uint32_t version,
                            std::unique_ptr<Engine>& engine);

// Returns PSS_WRONG_VERSION, and logs it, if a store's version is neither 0 nor the expected one.
uint32_t check_version(const std::string& path, uint32_t found, uint32_t expected);

// Logs a failure that concerns a store's file, at LOG_ERR.
void log_store_error(const std::string& path, uint32_t status, const char* detail);

// Flushes the directory entries of a folder to disk.
uint32_t sync_folder(const std::string& path);

// Maps an errno value to a PSS status; 0 is PSS_OK, an unlisted error PSS_IO.
uint32_t status_of_errno(int error);

}  // namespace quill
