// The credentials of a connection's peer, and the limits on the number of connections of each user.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <utility>

namespace quill {

// The credentials of the peer when it connected, as reported by the kernel (unix(7), SO_PEERCRED).
struct Peer {
    bool known = false;          // false: the kernel reported an error; such a peer may do nothing
    bool administrator = false;  // root, or a member of the administrators' group
    uid_t uid = 0;
    pid_t pid = 0;

    bool is_root() const { return known && uid == 0; }
};

// Returns the peer of a connected socket. `administrators` is the administrators' group, or 0 for none.
Peer identify(int socket, gid_t administrators);

// Limits the number of connections, of each user but root and in total. The last ones are reserved for
// administrators and root, so that other users cannot lock them out.
class Places {
 public:
    struct Limits {
        size_t all;
        size_t for_administrators;  // of `all`, reserved for administrators
        size_t for_root;            // of for_administrators, reserved for root
        size_t for_one_user;        // maximum of each uid but root's
    };

    // One counted connection, released by the destructor. Must not outlive its Places.
    class Place {
     public:
        Place() = default;
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        ~Place() {
            if (owner_ != nullptr) owner_->give_back(uid_);
        }
        Place(Place&& other) noexcept : owner_(std::exchange(other.owner_, nullptr)), uid_(other.uid_) {}
        Place& operator=(Place&& other) noexcept {
            std::swap(owner_, other.owner_);
            std::swap(uid_, other.uid_);
            return *this;
        }
        explicit operator bool() const { return owner_ != nullptr; }

     private:
        friend class Places;
        Place(Places& owner, uid_t uid) : owner_(&owner), uid_(uid) {}
        Places* owner_ = nullptr;
        uid_t uid_ = 0;
    };

    explicit Places(const Limits& limits) : limits_(limits) {}
    ~Places() = default;
    Places(const Places&) = delete;
    Places& operator=(const Places&) = delete;

    // Returns a place for the peer, or an empty Place if its limit is reached.
    Place take(const Peer& peer);

 private:
    void give_back(uid_t uid);

    const Limits limits_;
    size_t taken_ = 0;
    std::map<uid_t, size_t> taken_by_;
};

}  // namespace quill
