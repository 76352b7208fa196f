// Preloaded into the daemon: kills it with SIGKILL before the n-th step of a change to an account, where n is
// $QUILL_DIE_AT. A step is a write to the store, the start or end of a program, or the renaming of a file.
// The first step is the write of the journal entry.
#include <sys/types.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quillplatform/pss.h"
#include "tests/support/interpose.h"

namespace {

int step = 0;

void take_step() {
    const char* last = getenv("QUILL_DIE_AT");
    if (last != nullptr && ++step == atoi(last)) raise(SIGKILL);
}

bool is_journal_key(const pss_descriptor* key) {
    return key->length == 4 && memcmp(key->bytes, "\0\1\0", 3) == 0;
}

}  // namespace

INTERPOSED uint32_t pss2_store(uint32_t handle, const pss_descriptor* key, const pss_descriptor* value) {
    if (step > 0 || is_journal_key(key)) take_step();
    return original<decltype(pss2_store)>("pss2_store")(handle, key, value);
}

INTERPOSED uint32_t pss2_delete(uint32_t handle, const pss_descriptor* key, uint32_t count) {
    if (step > 0) take_step();
    return original<decltype(pss2_delete)>("pss2_delete")(handle, key, count);
}

INTERPOSED pid_t fork() noexcept {
    if (step > 0) take_step();
    return original<pid_t()>("fork")();
}

INTERPOSED pid_t waitpid(pid_t child, int* status, int options) {
    const pid_t waited = original<pid_t(pid_t, int*, int)>("waitpid")(child, status, options);
    if (step > 0 && waited > 0) take_step();
    return waited;
}

INTERPOSED int rename(const char* from, const char* to) noexcept {
    if (step > 0) take_step();
    return original<int(const char*, const char*)>("rename")(from, to);
}
