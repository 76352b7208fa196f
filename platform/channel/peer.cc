#include "platform/channel/peer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace quill {
namespace {

bool in_group(int socket, gid_t group) {
    std::vector<gid_t> groups(32);
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
        if (errno != ERANGE) return false;
        groups.resize(size / sizeof(gid_t));  // the size that the kernel returned
        if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) return false;
    }
    groups.resize(size / sizeof(gid_t));
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

}  // namespace

Peer identify(int socket, gid_t administrators) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 || size != sizeof credentials)
        return {};
    const bool member =
        administrators != 0 && (credentials.gid == administrators || in_group(socket, administrators));
    return {true, credentials.uid == 0 || member, credentials.uid, credentials.pid};
}

Places::Place Places::take(const Peer& peer) {
    const bool root = peer.is_root();
    const size_t kept = root ? 0 : peer.administrator ? limits_.for_root : limits_.for_administrators;
    if (taken_ + kept >= limits_.all) return {};
    size_t& own = taken_by_[peer.uid];
    if (!root && own >= limits_.for_one_user) return {};
    ++own;
    ++taken_;
    return {*this, peer.uid};
}

void Places::give_back(uid_t uid) {
    --taken_;
    const auto own = taken_by_.find(uid);
    if (--own->second == 0) taken_by_.erase(own);
}

}  // namespace quill
