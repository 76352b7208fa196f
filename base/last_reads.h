// What the daemon and a client remember of the lists that were read over a connection in order to change
// them: a client reads a user's list, changes it and stores all of it, which must not overwrite a change that
// another client stored in between.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "quillsecurity/records.h"

namespace quill {

// Returns true if requests of this type carry the list of a user, whose name is the first field.
constexpr bool carries_list(uint32_t type) {
    return type == SECURITY_ROLE_ASSIGN_REQUEST || type == SECURITY_ROLES_REQUEST ||
           type == SECURITY_LOCALE_ASSIGN_REQUEST;
}

// Returns true if the request reads a list in order to change it. SECURITY_ROLES_REQUEST only reads.
constexpr bool reads_to_change(uint32_t type, uint32_t operation) {
    return operation == GET_REQ && carries_list(type) && type != SECURITY_ROLES_REQUEST;
}

// A value for each list that was read, of the last time that it was read.
template <class Value>
class LastReads {
 public:
    // More users than a system has. If more lists than this are read, all are forgotten; from then on
    // forgot() is true, since a list of which nothing is remembered may have been read.
    static constexpr size_t kMost = 1024;

    // Throws std::bad_alloc; then nothing is remembered.
    void remember(uint32_t type, std::string_view user, const Value& value) {
        if (values_.size() >= kMost && find(type, user) == nullptr) {
            values_.clear();
            forgot_ = true;
        }
        values_.insert_or_assign(key(type, user), value);
    }
    // Returns null for a list of which nothing is remembered.
    const Value* find(uint32_t type, std::string_view user) const {
        const auto found = values_.find(key(type, user));
        return found == values_.end() ? nullptr : &found->second;
    }
    bool forgot() const { return forgot_; }

 private:
    // Both types of requests about roles are about one list.
    static std::pair<bool, std::string> key(uint32_t type, std::string_view user) {
        return {type == SECURITY_LOCALE_ASSIGN_REQUEST, std::string(user)};
    }

    std::map<std::pair<bool, std::string>, Value> values_;
    bool forgot_ = false;
};

}  // namespace quill
