// Preloaded into the daemon: a directory service that takes a hundred seconds for each name.
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <unistd.h>

#include "tests/support/interpose.h"

namespace {

template <class Entry>
Entry* look_up_slowly(const char* function, const char* name) {
    sleep(100);
    return original<Entry*(const char*)>(function)(name);
}

}  // namespace

INTERPOSED passwd* getpwnam(const char* name) { return look_up_slowly<passwd>("getpwnam", name); }
INTERPOSED spwd* getspnam(const char* name) { return look_up_slowly<spwd>("getspnam", name); }
