// What a database engine does for the store: one file of records in byte order of their keys.
//
// An engine knows nothing of handles, cursors and descriptors; store/pss.cc makes those of it once for all
// engines. Statuses are those of quillplatform/pss.h, and an engine maps its own errors to them in one place.
// Allocation failures are thrown as std::bad_alloc.
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
    bool sound = true;  // false: the value is damaged, and not here
};

class Engine {
 public:
    virtual ~Engine() = default;

    // PSS_NO_KEY when there is none.
    virtual uint32_t fetch(std::string_view key, std::string& value) = 0;

    // The first record at or after, and the first after a key that need not exist; PSS_NO_KEY when there is
    // none.
    virtual uint32_t at_or_after(std::string_view key, Record& found) = 0;
    virtual uint32_t after(std::string_view key, Record& found) = 0;

    // Durable once they return PSS_OK; otherwise nothing has changed.
    virtual uint32_t put(std::string_view key, std::string_view value) = 0;
    virtual uint32_t erase(std::string_view key) = 0;

    // 0 is a store that was never stamped.
    virtual uint32_t stamp(uint32_t version) = 0;

    // Blanks in the engine's files what was erased or replaced so far.
    virtual uint32_t settle() = 0;
};

// Opens the store kept in the file `path`, or with `create` makes it where nothing is there. The file's
// folder has been found safe. Whatever else stands under that name is left as it is, and so is a store that
// was stamped with another version than the one that the caller expects.
uint32_t open_sqlite_engine(const std::string& path, bool create, uint32_t version,
                            std::unique_ptr<Engine>& engine);

// PSS_WRONG_VERSION, and a line of the log, for a store that was stamped with another version.
uint32_t check_version(const std::string& path, uint32_t found, uint32_t expected);

// One line of the log about a store's file, at LOG_ERR.
void log_store_error(const std::string& path, uint32_t status, const char* detail);

// Flushes the names in a folder.
uint32_t sync_folder(const std::string& path);

// The status of a system error.
uint32_t status_of_errno(int error);

}  // namespace quill
