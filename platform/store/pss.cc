// The store's C face: handles, cursors and descriptors over an engine.
//
// Whatever is handed out lies in buffers of the handle, and a cursor is the key on which it stands. So bytes
// stay valid until the next call, and a cursor outlives the record under it.
#include "quillplatform/pss.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "platform/store/engine.h"
#include "platform/store/recent.h"

namespace quill {
namespace {

constexpr size_t kMaxStores = 16;
constexpr size_t kMaxName = 64;

struct Store {
    std::string name;
    std::unique_ptr<Engine> engine;

    Record at;             // where the cursor stands
    Record found;          // what a search for its next place fills
    bool placed = false;   // it stands somewhere
    bool current = false;  // at.value is what the store holds

    Recent recent;
    std::string fetched;
    pss_descriptor key{};
    pss_descriptor value{};
};

std::array<std::unique_ptr<Store>, kMaxStores> stores;

Store* find(uint32_t handle) {
    return handle >= 1 && handle <= kMaxStores ? stores[handle - 1].get() : nullptr;
}

pss_descriptor* describe(pss_descriptor& descriptor, std::string& bytes) {
    descriptor = {bytes.data(), static_cast<uint32_t>(bytes.size())};
    return &descriptor;
}

bool valid(const pss_descriptor* run, uint32_t largest) {
    return run != nullptr && run->length <= largest && (run->bytes != nullptr || run->length == 0);
}

bool valid_key(const pss_descriptor* key) { return valid(key, PSS_MAX_KEY) && key->length > 0; }

std::string_view view(const pss_descriptor* run) {
    return {static_cast<const char*>(run->bytes), run->length};
}

// Runs one call on an open store; nothing thrown inside leaves the library.
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

// Sees to it that at.value is what the store holds for the cursor's key.
uint32_t refresh(Store& store) {
    if (!store.placed) return PSS_NO_KEY;
    if (store.current) return PSS_OK;
    const uint32_t status = store.engine->fetch(store.at.key, store.at.value);
    store.current = status == PSS_OK;
    return status;
}

// Moves the cursor to what the search finds, or nowhere, and that as well where memory runs out on the way.
template <class Search>
uint32_t place(Store& store, Search search) {
    store.placed = store.current = false;
    const uint32_t status = search(store.found);
    if (status != PSS_OK) return status;
    std::swap(store.at, store.found);
    store.placed = true;
    store.current = store.at.sound;
    return PSS_OK;
}

bool valid_name(const char* name) {
    if (name == nullptr || *name == '\0' || *name == '.' || strlen(name) > kMaxName) return false;
    constexpr char kAllowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    return strspn(name, kAllowed) == strlen(name);
}

std::string state_directory() {
    const char* path = getenv("QUILL_STATE_DIR");
    return path != nullptr && *path != '\0' ? path : "/var/lib/quillsecurity";
}

// A folder that others can enter is refused rather than closed: the caller may have named the wrong one.
uint32_t check_directory(const std::string& path, bool create) {
    if (path[0] != '/') return PSS_BAD_ARGUMENT;
    if (create) {
        // Made without regard to the mask, which may take the owner's own bits.
        const bool made = mkdir(path.c_str(), 0700) == 0;
        if (made ? chmod(path.c_str(), 0700) != 0 : errno != EEXIST) return status_of_errno(errno);
        const uint32_t synced = made ? sync_folder(path + "/..") : PSS_OK;
        if (synced != PSS_OK) return synced;
    }
    struct stat facts;
    if (stat(path.c_str(), &facts) != 0) return errno == ENOENT ? PSS_NO_STORE : status_of_errno(errno);
    if (!S_ISDIR(facts.st_mode)) return PSS_MISSING;
    if (facts.st_uid == geteuid() && (facts.st_mode & 077) == 0) return PSS_OK;
    return PSS_UNSAFE;
}

uint32_t free_slot(const char* name, size_t& slot) {
    slot = kMaxStores;
    for (size_t i = 0; i < kMaxStores; ++i) {
        // A second connection of this process would not see the first one's lock, and closing its file would
        // drop that lock (fcntl(2), record locks).
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
    if (status != PSS_OK) {
        if (status != PSS_NO_STORE || create)
            syslog(LOG_ERR,
                   "state directory %s: %s; it must be the absolute path of a folder of mode 0700 that "
                   "belongs to user %u",
                   directory.c_str(), syserr2str(status), geteuid());
        return status;
    }
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
        return one == 1 ? store.engine->stamp(version) : PSS_BAD_ARGUMENT;
    });
}

pss_descriptor* pss2_fetch(uint32_t handle, const pss_descriptor* key, uint32_t* status) {
    pss_descriptor* value = nullptr;
    *status = quill::on_store(handle, [&](quill::Store& store) -> uint32_t {
        if (!quill::valid_key(key)) return PSS_BAD_ARGUMENT;
        uint32_t fetched = PSS_OK;
        if (!store.recent.find(quill::view(key), store.fetched)) {
            std::string bytes;  // the key may be what this call answered before
            fetched = store.engine->fetch(quill::view(key), bytes);
            if (fetched == PSS_OK) store.recent.keep(quill::view(key), bytes);
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
        store.current = false;
        const std::string_view wanted = quill::view(key), bytes = quill::view(value);
        const uint32_t status = store.engine->put(wanted, bytes);
        if (status == PSS_OK)
            store.recent.keep(wanted, bytes);
        else
            store.recent.forget(wanted);
        return status;
    });
}

uint32_t pss2_delete(uint32_t handle, const pss_descriptor* key, uint32_t count) {
    return quill::on_store(handle, [&](quill::Store& store) -> uint32_t {
        if (!quill::valid_key(key) || count != 1) return PSS_BAD_ARGUMENT;
        store.current = false;
        const uint32_t status = store.engine->erase(quill::view(key));
        store.recent.forget(quill::view(key));
        return status;
    });
}

uint32_t pss2_move2key(uint32_t* handle, uint32_t mode, const pss_descriptor* key, uint32_t* status) {
    *status = quill::on_store(*handle, [&](quill::Store& store) -> uint32_t {
        if (mode != PSS_MODE || !quill::valid_key(key)) return PSS_BAD_ARGUMENT;
        const std::string wanted(quill::view(key));  // it may be what pss2_getkey() handed out
        const uint32_t moved = quill::place(
            store, [&](quill::Record& found) { return store.engine->at_or_after(wanted, found); });
        return moved == PSS_OK && store.at.key != wanted ? PSS_NO_KEY : moved;
    });
    return *status;
}

uint32_t pss2_move2location(uint32_t* handle, uint32_t mode, uint32_t location, uint32_t* status) {
    *status = quill::on_store(*handle, [&](quill::Store& store) -> uint32_t {
        if (mode != PSS_MODE || location != PSS_NEXT) return PSS_BAD_ARGUMENT;
        if (!store.placed) return PSS_NO_KEY;
        return quill::place(store,
                            [&](quill::Record& found) { return store.engine->after(store.at.key, found); });
    });
    return *status;
}

pss_descriptor* pss2_getkey(uint32_t handle, uint32_t* status) {
    *status = quill::on_store(handle, quill::refresh);
    if (*status == PSS_CORRUPT) *status = PSS_OK;  // its value alone is damaged
    if (*status != PSS_OK) return nullptr;
    quill::Store& store = *quill::find(handle);
    return quill::describe(store.key, store.at.key);
}

pss_descriptor* pss2_getvalue(uint32_t handle, uint32_t* status) {
    *status = quill::on_store(handle, quill::refresh);
    if (*status != PSS_OK) return nullptr;
    quill::Store& store = *quill::find(handle);
    return quill::describe(store.value, store.at.value);
}

uint32_t pss2_settle() {
    uint32_t first = PSS_OK;
    for (auto& store : quill::stores) {
        if (store == nullptr) continue;
        const uint32_t status = store->engine->settle();
        if (first == PSS_OK) first = status;
    }
    return first;
}

uint32_t pss2_close(uint32_t handle) {
    const uint32_t status =
        quill::on_store(handle, [](quill::Store& store) { return store.engine->settle(); });
    if (status != PSS_BAD_HANDLE) quill::stores[handle - 1] = nullptr;
    return status;
}
