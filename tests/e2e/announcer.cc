// A daemon for tests of listeners, without a store or accounts: it announces a change of a user for each request, so
// that ten thousand changes take a second.
//
//   announcer serve      runs the daemon
//   announcer ask COUNT  sends that many requests
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/announce.h"
#include "platform/channel/server.h"
#include "platform/mts/broadcast.h"
#include "platform/service.h"
#include "quillplatform.h"

namespace {

quill::Answer announce(const quill::Peer&, quill::ConnectionState&, quill::Request& request) {
    security_user_roles roles{};
    roles.num_roles = 2;
    strcpy(roles.roles[0], "network-operator");
    strcpy(roles.roles[1], "vdc-operator");
    quill::announce_user_change(SECURITY_USER_MODIFIED, "amy", roles);
    return {SECURITY_OK, request.length, false};
}

int serve() {
    std::string reason;
    if (!quill::take_runtime_directory(reason)) return 1;
    quill::Server server({0, announce, [] { return true; }, [] {}});
    quill::Broadcast broadcast(server.loop(), 0, 1);
    quill::announce_on(broadcast.handle());
    if (!server.listen() || !broadcast.listen()) return 1;
    server.run();
    return 0;
}

int ask(int count) {
    for (int i = 0; i < count; ++i) {
        uint32_t length = 0;
        if (security_cmi2(1, 1, nullptr, nullptr, &length, 0) != 0) return 1;
    }
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    if (count == 2 && strcmp(arguments[1], "serve") == 0) return serve();
    if (count == 3 && strcmp(arguments[1], "ask") == 0) return ask(atoi(arguments[2]));
    return 2;
}
