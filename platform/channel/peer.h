// Who is at the other end of a connection, and how many connections each may have.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <utility>

namespace quill {

// Who was at the other end when the connection was made, as the kernel reports it (unix(7), SO_PEERCRED).
struct Peer {
    bool known = false;          // false: the kernel would not say; nothing is permitted
    bool administrator = false;  // root, or a member of the administrators' group
    uid_t uid = 0;
    pid_t pid = 0;

    bool is_root() const { return known && uid == 0; }
};

// Of a connected socket; `administrators` is a group, 0 for none.
Peer identify(int socket, gid_t administrators);

// Connections are limited: each uid but root's has at most some of them, and the last ones are kept for those
// who may repair things.
class Places {
 public:
    struct Limits {
        size_t all;
        size_t for_administrators;  // of these; nobody else gets them
        size_t for_root;            // of those for administrators
        size_t for_one_user;        // at most for each uid but root's
    };

    // A place, given back with the object.
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

    // Returns a place for the peer; none where there is none left for it. It must not outlive this object.
    Place take(const Peer& peer);

 private:
    void give_back(uid_t uid);

    const Limits limits_;
    size_t taken_ = 0;
    std::map<uid_t, size_t> taken_by_;
};

}  // namespace quill
