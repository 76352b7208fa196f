// Passwords in their stored form, as in the second field of shadow(5). Programs that use this link libcrypt.
#pragma once

#include <crypt.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/wiped.h"

namespace quill {

namespace stored_password {

constexpr std::string_view kDigits = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// What a hash may cost. Verifying it must not stall a login, nor the daemon that checks it here: the limits
// are far above the defaults of all programs that set passwords, and stay near a second of work.
struct Limit {
    std::string_view prefix;
    uint32_t most;  // limit of the number behind the prefix; 0: there is none, the work is small and fixed
};
constexpr Limit kLimits[] = {
    {"$6$rounds=", 1000000},
    {"$6$", 0},
    {"$5$rounds=", 1000000},
    {"$5$", 0},
    {"$2a$", 13},
    {"$2b$", 13},
    {"$2x$", 13},
    {"$2y$", 13},
    {"$1$", 0},
    {"$md5,rounds=", 100000},
    {"$md5$", 0},
    {"$3$", 0},
    {"$sha1$", 500000},
};

// Parameters of yescrypt and scrypt are accepted in the form that crypt_gensalt(3) writes, with up to 128 MiB
// of memory. One digit is the logarithm of the memory; kDigits are in the order of ASCII, so `<=` compares
// them.
constexpr char kMostMemory = 'C';
inline bool affordable_yescrypt(std::string_view parameters) {
    return parameters.size() > 3 && parameters[0] == 'j' && parameters[1] <= kMostMemory &&
           (parameters[2] == 'T' || parameters[2] == '5') && parameters[3] == '$';
}
inline bool affordable_scrypt(std::string_view parameters) {
    return parameters.size() > 1 && parameters[0] <= kMostMemory &&
           parameters.substr(1).starts_with("U..../....");
}

// Returns false also for a hash of a method that is not in the table.
inline bool affordable(const char* text) {
    const std::string_view hash(text);
    if (hash.starts_with("$y$")) return affordable_yescrypt(hash.substr(3));
    if (hash.starts_with("$gy$")) return affordable_yescrypt(hash.substr(4));
    if (hash.starts_with("$7$")) return affordable_scrypt(hash.substr(3));
    if (hash.starts_with("_")) return hash.size() > 4 && hash[4] == '.';  // the highest digit of its rounds
    for (const Limit& limit : kLimits) {
        if (!hash.starts_with(limit.prefix)) continue;
        return limit.most == 0 || strtoull(text + limit.prefix.size(), nullptr, 10) <= limit.most;
    }
    return !hash.starts_with("$");  // the traditional method
}

// The length of the part of a hash that crypt(3) takes as its setting: method, cost and salt.
inline size_t setting_length(std::string_view hash) {
    if (hash.starts_with("_")) return 9;
    if (hash.starts_with("$2")) return 29;
    return hash.starts_with("$") ? hash.rfind('$') + 1 : 2;
}

// The last digit of a traditional hash holds four bits, so its lower two are zero.
inline bool ends_as_traditional(std::string_view hash) { return kDigits.find(hash.back()) % 4 == 0; }

// Returns true if some password could have this hash: for any phrase crypt(3) returns a text of the same
// setting, length and alphabet.
inline bool is_hash(const char* stored) {
    if (!affordable(stored)) return false;
    const auto memory = std::make_unique<Wiped<crypt_data>>();
    const char* computed = crypt_rn("a phrase", stored, memory.get(), sizeof(crypt_data));
    if (computed == nullptr) return false;
    const std::string_view hash(stored), other(computed);
    const size_t setting = setting_length(other);
    if (hash.size() != other.size() || hash.substr(0, setting) != other.substr(0, setting)) return false;
    if (hash.find_first_not_of(kDigits, setting) != hash.npos) return false;
    return setting != 2 || ends_as_traditional(hash);
}

}  // namespace stored_password

// Returns true if crypt(3) of this system could verify a password against the stored text, or the text locks
// the password on purpose: "*", any number of '!', or either of "*" and a hash behind them, as passwd(1) and
// usermod(8) lock it. Returns false for an empty text, which would let everybody in; for a hash that is cut
// or too long, of a disabled method, or so costly that verifying it would take much more than a second.
// `stored` may be any terminated text. Computes one hash, which takes as long as a login.
inline bool verifiable_password(const char* stored) {
    if (*stored == '\0') return false;
    const char* hash = stored + strspn(stored, "!");
    if (*hash == '\0' || strcmp(hash, "*") == 0) return true;
    return stored_password::is_hash(hash);
}

}  // namespace quill
