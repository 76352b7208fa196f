// The store's C functions: handles, cursors and descriptors on top of a database engine.
//
// Keys and values that are returned point into buffers of the handle, so they stay valid until the next call.
// A cursor is a copy of the current key, so it stays valid when that record is deleted.
#include "quillplatform/pss.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "platform/folders.h"
#include "platform/store/engine.h"
#include "platform/store/value_cache.h"

namespace quill {
namespace {

constexpr size_t kMaxStores = 16;
constexpr size_t kMaxName = 64;

struct Store {
    std::string name;
    std::unique_ptr<Engine> engine;

    Record cursor;  // the record that the cursor is at, if has_position
    Record next;    // filled by a search, then swapped with `cursor`
    bool has_position = false;
    bool value_is_current = false;  // no change since cursor.value was read

    ValueCache cache;
    std::string fetched;
    pss_descriptor key{};    // returned by pss2_getkey()
    pss_descriptor value{};  // returned by pss2_fetch() and pss2_getvalue()
};

std::array<std::unique_ptr<Store>, kMaxStores> stores;

Store* find(uint32_t handle) {
    return handle >= 1 && handle <= kMaxStores ? stores[handle - 1].get() : nullptr;
}

pss_descriptor* describe(pss_descriptor& descriptor, std::string& bytes) {
    descriptor = {bytes.data(), static_cast<uint32_t>(bytes.size())};
    return &descriptor;
}

bool valid(const pss_descriptor* given, uint32_t limit) {
    return given != nullptr && given->length <= limit && (given->bytes != nullptr || given->length == 0);
}

bool valid_key(const pss_descriptor* key) { return valid(key, PSS_MAX_KEY) && key->length > 0; }

std::string_view view(const pss_descriptor* given) {
    return {static_cast<const char*>(given->bytes), given->length};
}

// Calls a function with the open store of a handle. Returns its status, PSS_BAD_HANDLE if there is no such
// store, or PSS_NO_MEMORY if it throws std::bad_alloc.
template <class Call>
uint32_t on_store(uint32_t handle, Call call) {
    Store* store = find(handle);
    if (store == nullptr) return PSS_BAD_HANDLE;
    try {
        return call(*store);
    } catch (const std::bad_alloc&) {
        return PSS_NO_MEMORY;
    }
}

// Reads the cursor's record again if the store has changed since. PSS_NO_KEY if the cursor has no position or
// the record was deleted.
uint32_t refresh_cursor(Store& store) {
    if (!store.has_position) return PSS_NO_KEY;
    if (store.value_is_current) return PSS_OK;
    const uint32_t status = store.engine->fetch(store.cursor.key, store.cursor.value);
    store.value_is_current = status == PSS_OK;
    return status;
}

// Moves the cursor to the record that the search finds. If it finds none, fails or throws, the cursor has no
// position afterwards.
template <class Search>
uint32_t move_cursor(Store& store, Search search) {
    store.has_position = store.value_is_current = false;
    const uint32_t status = search(store.next);
    if (status != PSS_OK) return status;
    std::swap(store.cursor, store.next);
    store.has_position = true;
    store.value_is_current = store.cursor.intact;
    return PSS_OK;
}

bool valid_name(const char* name) {
    if (name == nullptr || *name == '\0' || *name == '.' || strlen(name) > kMaxName) return false;
    constexpr char kAllowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    return strspn(name, kAllowed) == strlen(name);
}

// A folder that others can enter is refused; its mode is not changed, since it may be the wrong folder.
uint32_t check_folder(const std::string& path, bool create) {
    if (path[0] != '/') return PSS_BAD_ARGUMENT;
    if (create) {
        // The umask may have removed permissions of the owner.
        const bool created = mkdir(path.c_str(), 0700) == 0;
        if (created ? chmod(path.c_str(), 0700) != 0 : errno != EEXIST) return status_of_errno(errno);
        const uint32_t synced = created ? sync_folder(path + "/..") : PSS_OK;
        if (synced != PSS_OK) return synced;
    }
    struct stat info;
    if (stat(path.c_str(), &info) != 0) return errno == ENOENT ? PSS_NO_STORE : status_of_errno(errno);
    if (!S_ISDIR(info.st_mode)) return PSS_MISSING;
    if (info.st_uid == geteuid() && (info.st_mode & 077) == 0) return PSS_OK;
    return PSS_UNSAFE;
}

// The state directory of this context, and the one that holds it.
uint32_t check_directory(const std::string& directory, bool create) {
    for (const std::string& path : {shared_state_directory(), directory}) {
        const uint32_t status = check_folder(path, create);
        if (status == PSS_OK) continue;
        if (status != PSS_NO_STORE || create)
            syslog(LOG_ERR,
                   "state directory %s: %s; it must be the absolute path of a folder of mode 0700 that "
                   "belongs to user %u",
                   path.c_str(), syserr2str(status), geteuid());
        return status;
    }
    return PSS_OK;
}

uint32_t free_slot(const char* name, size_t& slot) {
    slot = kMaxStores;
    for (size_t i = 0; i < kMaxStores; ++i) {
        // Record locks do not exclude a second connection of the same process, and closing that one would
        // release the lock (fcntl(2)).
        if (stores[i] != nullptr && stores[i]->name == name) return PSS_IN_USE;
        if (stores[i] == nullptr && slot == kMaxStores) slot = i;
    }
    return slot == kMaxStores ? PSS_NO_FILES : PSS_OK;
}

uint32_t open_store(const char* name, bool create, uint32_t version, uint32_t& handle) {
    size_t slot;
    uint32_t status = free_slot(name, slot);
    if (status != PSS_OK) return status;
    const std::string directory = state_directory();
    status = check_directory(directory, create);
    if (status != PSS_OK) return status;
    const std::string path = directory + "/" + name + ".db";
    auto store = std::make_unique<Store>();
    store->name = name;
    status = open_sqlite_engine(path, create, version, store->engine);
    if (status != PSS_OK) return status;
    stores[slot] = std::move(store);
    handle = static_cast<uint32_t>(slot) + 1;
    return PSS_OK;
}

}  // namespace
}  // namespace quill

uint32_t pss2_open(const char* name, uint32_t flags, uint32_t, uint32_t, const uint32_t* parameters,
                   uint32_t* status) {
    uint32_t handle = 0;
    if (!quill::valid_name(name) || parameters == nullptr || (flags & ~PSS_CREATE) != PSS_READ_WRITE) {
        *status = PSS_BAD_ARGUMENT;
        return handle;
    }
    try {
        *status = quill::open_store(name, (flags & PSS_CREATE) != 0, parameters[3], handle);
    } catch (const std::bad_alloc&) {
        *status = PSS_NO_MEMORY;
    }
    return handle;
}

uint32_t pss_version_set(uint32_t handle, uint32_t one, uint32_t version) {
    return quill::on_store(handle, [&](quill::Store& store) -> uint32_t {
        return one == 1 ? store.engine->set_version(version) : PSS_BAD_ARGUMENT;
    });
}

pss_descriptor* pss2_fetch(uint32_t handle, const pss_descriptor* key, uint32_t* status) {
    pss_descriptor* value = nullptr;
    *status = quill::on_store(handle, [&](quill::Store& store) -> uint32_t {
        if (!quill::valid_key(key)) return PSS_BAD_ARGUMENT;
        uint32_t fetched = PSS_OK;
        if (!store.cache.find(quill::view(key), store.fetched)) {
            std::string bytes;  // not store.fetched, which `key` may point into
            fetched = store.engine->fetch(quill::view(key), bytes);
            if (fetched == PSS_OK) store.cache.put(quill::view(key), bytes);
            if (fetched == PSS_OK) std::swap(store.fetched, bytes);
        }
        if (fetched == PSS_OK) value = quill::describe(store.value, store.fetched);
        return fetched;
    });
    return value;
}

uint32_t pss2_store(uint32_t handle, const pss_descriptor* key, const pss_descriptor* value) {
    return quill::on_store(handle, [&](quill::Store& store) -> uint32_t {
        if (!quill::valid_key(key) || !quill::valid(value, PSS_MAX_VALUE)) return PSS_BAD_ARGUMENT;
        store.value_is_current = false;
        const std::string_view wanted = quill::view(key), bytes = quill::view(value);
        const uint32_t status = store.engine->put(wanted, bytes);
        if (status == PSS_OK)
            store.cache.put(wanted, bytes);
        else
            store.cache.erase(wanted);
        return status;
    });
}

uint32_t pss2_delete(uint32_t handle, const pss_descriptor* key, uint32_t count) {
    return quill::on_store(handle, [&](quill::Store& store) -> uint32_t {
        if (!quill::valid_key(key) || count != 1) return PSS_BAD_ARGUMENT;
        store.value_is_current = false;
        const uint32_t status = store.engine->erase(quill::view(key));
        store.cache.erase(quill::view(key));
        return status;
    });
}

uint32_t pss2_move2key(uint32_t* handle, uint32_t mode, const pss_descriptor* key, uint32_t* status) {
    *status = quill::on_store(*handle, [&](quill::Store& store) -> uint32_t {
        if (mode != PSS_MODE || !quill::valid_key(key)) return PSS_BAD_ARGUMENT;
        const std::string wanted(quill::view(key));  // a copy: `key` may point into the cursor
        const uint32_t moved = quill::move_cursor(
            store, [&](quill::Record& found) { return store.engine->at_or_after(wanted, found); });
        return moved == PSS_OK && store.cursor.key != wanted ? PSS_NO_KEY : moved;
    });
    return *status;
}

uint32_t pss2_move2location(uint32_t* handle, uint32_t mode, uint32_t location, uint32_t* status) {
    *status = quill::on_store(*handle, [&](quill::Store& store) -> uint32_t {
        if (mode != PSS_MODE || location != PSS_NEXT) return PSS_BAD_ARGUMENT;
        if (!store.has_position) return PSS_NO_KEY;
        return quill::move_cursor(
            store, [&](quill::Record& found) { return store.engine->after(store.cursor.key, found); });
    });
    return *status;
}

pss_descriptor* pss2_getkey(uint32_t handle, uint32_t* status) {
    *status = quill::on_store(handle, quill::refresh_cursor);
    if (*status == PSS_CORRUPT) *status = PSS_OK;  // only the value is damaged
    if (*status != PSS_OK) return nullptr;
    quill::Store& store = *quill::find(handle);
    return quill::describe(store.key, store.cursor.key);
}

pss_descriptor* pss2_getvalue(uint32_t handle, uint32_t* status) {
    *status = quill::on_store(handle, quill::refresh_cursor);
    if (*status != PSS_OK) return nullptr;
    quill::Store& store = *quill::find(handle);
    return quill::describe(store.value, store.cursor.value);
}

uint32_t pss2_checkpoint() {
    uint32_t first = PSS_OK;
    for (auto& store : quill::stores) {
        if (store == nullptr) continue;
        const uint32_t status = store->engine->checkpoint();
        if (first == PSS_OK) first = status;
    }
    return first;
}

uint32_t pss2_close(uint32_t handle) {
    const uint32_t status =
        quill::on_store(handle, [](quill::Store& store) { return store.engine->checkpoint(); });
    if (status != PSS_BAD_HANDLE) quill::stores[handle - 1] = nullptr;
    return status;
}
