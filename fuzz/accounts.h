// A fake user database behind getpwnam(3), getspnam(3) and similar functions. To be included by harnesses
// only: it defines these functions. The home directories of all accounts are those of accounts that the
// daemon manages.
#pragma once

#include <pwd.h>
#include <shadow.h>

#include <cerrno>
#include <map>
#include <string>

struct FakeAccount {
    std::string password = "!";
    long expiry = -1;
};

struct FakeAccounts {
    std::map<std::string, FakeAccount> by_name;
    bool unreadable = false;  // every look-up fails

    // What the functions returned last, and the positions of enumerations.
    std::string name, home, password;
    passwd user{};
    spwd shadow{};
    std::string next_user, next_shadow;
};

inline FakeAccounts& accounts() {
    static FakeAccounts instance;
    return instance;
}

inline std::map<std::string, FakeAccount>::iterator find_account(const char* name) {
    errno = accounts().unreadable ? EIO : 0;
    return accounts().unreadable ? accounts().by_name.end() : accounts().by_name.find(name);
}

using AccountPlace = std::map<std::string, FakeAccount>::iterator;

inline passwd* as_passwd(AccountPlace found) {
    FakeAccounts& a = accounts();
    if (found == a.by_name.end()) return nullptr;
    a.name = found->first;
    a.home = "/bootflash/home/" + a.name;
    a.user.pw_name = a.name.data();
    a.user.pw_dir = a.home.data();
    a.user.pw_uid = a.user.pw_gid = 1000;
    return &a.user;
}

inline spwd* as_shadow(AccountPlace found) {
    FakeAccounts& a = accounts();
    if (found == a.by_name.end()) return nullptr;
    a.name = found->first;
    a.password = found->second.password;
    a.shadow.sp_namp = a.name.data();
    a.shadow.sp_pwdp = a.password.data();
    a.shadow.sp_expire = found->second.expiry;
    return &a.shadow;
}

inline AccountPlace account_after(std::string& last) {
    const auto found = accounts().by_name.upper_bound(last);
    if (found != accounts().by_name.end()) last = found->first;
    return found;
}

extern "C" {
passwd* getpwnam(const char* name) { return as_passwd(find_account(name)); }
passwd* getpwuid(uid_t) { return as_passwd(accounts().by_name.begin()); }
spwd* getspnam(const char* name) { return as_shadow(find_account(name)); }
void setpwent() { accounts().next_user.clear(); }
void setspent() { accounts().next_shadow.clear(); }
void endpwent() {}
void endspent() {}
passwd* getpwent() { return as_passwd(account_after(accounts().next_user)); }
spwd* getspent() { return as_shadow(account_after(accounts().next_shadow)); }
}
