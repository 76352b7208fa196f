// The reference platform while memory runs out: store, configuration, channel, message transport and
// accounts.
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>

#include "quillplatform.h"
#include "quillsecurity/status.h"
#include "tests/allocation/injection.h"
#include "tests/support/box.h"
#include "tests/support/store.h"

namespace {

const std::string kOld(300, 'a'), kNew(3000, 'b');  // more than strings and pages have room for

const std::string kBox = "/tmp/allocation";  // always the same path: setenv() never releases the old values

void empty_box() {
    const Watching ours(false);
    std::filesystem::remove_all(kBox);
    std::filesystem::create_directory(kBox);
    setenv("QUILL_STATE_DIR", (kBox + "/state").c_str(), 1);
    setenv("QUILL_RUNTIME_DIR", (kBox + "/run").c_str(), 1);
    setenv("QUILL_PLATFORM_CONF", (kBox + "/platform.conf").c_str(), 1);
}

// A store with one record. now() opens it again and returns the value.
struct Stored {
    uint32_t handle = 0;
    Stored() {
        empty_box();
        open_store(handle);
        put(handle, "key", kOld);
    }
    ~Stored() { pss2_close(handle); }
    std::string now() {
        pss2_close(handle);
        open_store(handle);
        return fetch(handle, "key");
    }
};

// A new store is complete and erases its secrets, or does not exist.
Outcome opened() {
    empty_box();
    uint32_t handle = 0;
    const uint32_t status = attempt([&] { return open_store(handle); });
    const bool blanking = sqlite3_vfs_find("quill-blanking") != nullptr;
    const Outcome outcome = judge(status, handle != 0 && blanking, handle == 0);
    attempt([&] { return pss2_close(handle); });
    return outcome;
}

// A change is made completely or not at all, and its status says which.
Outcome changed(uint32_t (*change)(uint32_t), const std::string& after) {
    Stored stored;
    const uint32_t status = attempt([&] { return change(stored.handle); });
    if (status != PSS_OK && status != PSS_NO_MEMORY) return kWrong;
    const std::string now = stored.now();
    return judge(status, now == after, now == kOld);
}

const pss_descriptor kKey{const_cast<char*>("key"), 3};

uint32_t replace(uint32_t handle) {
    const pss_descriptor value = describe(kNew);
    return pss2_store(handle, &kKey, &value);
}

uint32_t remove(uint32_t handle) { return pss2_delete(handle, &kKey, 1); }

Outcome read() {
    const Stored stored;
    uint32_t status = 9;
    const pss_descriptor* found = attempt([&] { return pss2_fetch(stored.handle, &kKey, &status); });
    return judge(status, found != nullptr && bytes_of(found) == kOld, found == nullptr);
}

// Moves to the record and on to the next, and reads that.
Outcome walked() {
    Stored stored;
    put(stored.handle, "next", kNew);
    uint32_t status = 9;
    const pss_descriptor *key = nullptr, *value = nullptr;
    attempt([&] {
        if (pss2_move2key(&stored.handle, PSS_MODE, &kKey, &status) != PSS_OK) return;
        if (pss2_move2location(&stored.handle, PSS_MODE, PSS_NEXT, &status) != PSS_OK) return;
        key = pss2_getkey(stored.handle, &status);
        if (status == PSS_OK) value = pss2_getvalue(stored.handle, &status);
    });
    return judge(status, bytes_of(key) == "next" && bytes_of(value) == kNew, value == nullptr);
}

Outcome stamped() {
    const Stored stored;
    return judge(attempt([&] { return pss_version_set(stored.handle, 1, 7); }), true);
}

// The configuration is read on first use. No other context than its own is returned.
struct Configured {
    Configured() {
        empty_box();
        const std::string path = kBox + "/platform.conf", locales = kBox + "/locales";
        write_file(locales, "a-locale-with-a-name-of-some-length\n");
        write_file(path,
                   "[system]\nvdc_id = 2\ncard_type = 12\ntelnet_card_types = 12, 13\n"
                   "roles = a-role-with-a-name-of-some-length\nlocales = " +
                       locales + "\n");
    }
};

Outcome context_read() {
    const Configured configured;
    const int32_t context = attempt(sysmgrcmn_vdc_id_get);
    return context == -1 ? kRefused : done_if(context == 2);
}

Outcome card_read() {
    const Configured configured;
    card_module_info card{};
    const uint32_t status = attempt([&] { return get_card_module_info(&card); });
    uint32_t count = 9;
    attempt([&] { return quill_telnet_card_types(&count); });
    return judge(status, card.card_type == 12 && count == 2);
}

Outcome names_checked() {
    const Configured configured;
    const int32_t role =
        attempt([] { return vshd_perm_group_role_name_verify(4, "a-role-with-a-name-of-some-length"); });
    const int32_t locale =
        attempt([] { return vshd_perm_locale_name_verify(4, "a-locale-with-a-name-of-some-length"); });
    return role == 0 && locale == 0 ? kDone : kRefused;
}

int32_t carried = 0;

Outcome sent() {
    carried = 0;
    const auto carry = [](void*, uint32_t, uint32_t, const void*, uint32_t) { return ++carried, 0; };
    const uint32_t handle = attempt([&] { return quill_mts_attach(carry, nullptr); });
    const int32_t status = attempt([&] { return mts_send(handle, MTS_THIS_NODE, 0, 1, "text", 4, 0, 0, 0); });
    quill_mts_close(handle);
    return handle == 0 ? kRefused : done_if(status == 0 && carried == 1);
}

Outcome requested_without_daemon() {
    empty_box();
    char record[] = "record";
    void* reply = nullptr;
    uint32_t length = sizeof record;
    const int32_t status = attempt([&] { return security_cmi(161, 1, record, &reply, &length, 4); });
    return done_if(status == -1 && reply == nullptr && length == 0);
}

Outcome looked_up() {
    const platform_shadow_entry* entry = attempt([] { return mygetspnam(0, "root"); });
    return entry == nullptr ? kWrong
                            : judge(entry->status, entry->password != nullptr && entry->expiry_days == -1);
}

const Case kCases[] = {
    {"pss2_open", opened, true},
    {"pss2_store", [] { return changed(replace, kNew); }},
    {"pss2_delete", [] { return changed(remove, "[40480003]"); }},
    {"pss2_fetch", read},
    {"pss2_getvalue", walked},
    {"pss_version_set", stamped},
    {"sysmgrcmn_vdc_id_get", context_read, true},
    {"get_card_module_info", card_read, true},
    {"vshd_perm_group_role_name_verify", names_checked, true},
    {"mts_send", sent},
    {"security_cmi", requested_without_daemon},
    {"mygetspnam", looked_up},
};

using PlatformAllocation = AllocationTest;

TEST_P(PlatformAllocation, FailingAtAnyCallIsAStatus) { failures += examine(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Functions, PlatformAllocation, testing::ValuesIn(kCases), name_of);

}  // namespace
