// The tables of the store: the number that begins every key, what follows it in the key, and the value.
// The handlers of locales and SSH keys walk on from their table into those behind it, so callers see the
// order of the numbers.
#pragma once

#include <cstdint>

namespace quill {

constexpr uint32_t kServicesTable = 1;      // service code; its value, one word
constexpr uint32_t kUsersTable = 5;         // user name; security_user behind the name
constexpr uint32_t kSshKeysTable = 6;       // user name; key_text of an ssh_key_rec
constexpr uint32_t kSecondUsersTable = 7;   // as kUsersTable, for users with user_type 1
constexpr uint32_t kRolesTable = 20;        // user name; a count and that many names
constexpr uint32_t kSshKeyFilesTable = 21;  // user name; key_text and key_format of an ssh_key_new_rec
constexpr uint32_t kPrivLevelsTable = 22;   // level; security_priv_info behind the level
constexpr uint32_t kLocalesTable = 27;      // user name; a count and that many names
constexpr uint32_t kBannerTable = 28;       // nothing; the banner's delimiter, one byte
constexpr uint32_t kHttpPortTable = 30;     // service code; a port, one word
constexpr uint32_t kOtherPortTable = 31;    // the same for every code but that of the HTTP port
constexpr uint32_t kFirstWebTable = 32;     // zero word; text of item 0 of an nginx_cert_rec
constexpr uint32_t kSecondWebTable = 33;    // the same for every other item

// Journal entries of the daemon, behind all tables of records; the key is the number alone.
constexpr uint32_t kAccountJournal = 0x10000;    // daemon/account_changes.cc
constexpr uint32_t kWebServerJournal = 0x10001;  // daemon/web_server.cc

}  // namespace quill
