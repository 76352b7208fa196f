#include "tests/cli/fake_daemon.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "quillplatform.h"

FakeDaemon& fake_daemon() {
    static FakeDaemon instance;
    return instance;
}

namespace {

uint32_t serve(uint32_t operation, security_priv_info& info) {
    auto& levels = fake_daemon().levels;
    switch (operation) {
    case GET_REQ:
        if (!levels.contains(info.priv_lvl)) return SECURITY_ERR_NO_PRIV_LVL;
        info = levels[info.priv_lvl];
        return SECURITY_OK;
    case SET_REQ: {
        char* hashed;
        uint32_t length;
        security_conf_encrypt(info.secret, SECURITY_ENCRYPTION_HASH, nullptr, 0, &hashed, &length);
        memset(info.secret, 0, sizeof info.secret);
        memcpy(info.secret, hashed, length);
        free(hashed);
        info.secret_len = static_cast<int32_t>(length);
        info.encryption_type = SECURITY_ENCRYPTION_HASH;
        levels[info.priv_lvl] = info;
        return SECURITY_OK;
    }
    }
    return levels.erase(info.priv_lvl) == 1 ? SECURITY_OK : SECURITY_PSS_NO_KEY;
}

uint32_t read(const security_user& found, security_user& user) {
    const bool hash = found.encryption_type == SECURITY_ENCRYPTION_HASH;
    user = found;
    if (hash && !fake_daemon().hands_out_hashes) return SECURITY_ERR_CRYPT;
    if (!hash) user.encryption_type = SECURITY_ENCRYPTION_CLEAR;
    return SECURITY_OK;
}

uint32_t serve(uint32_t operation, security_user& user) {
    auto& users = fake_daemon().users;
    const std::pair key{user.user_type == 1, std::string(user.user_name)};
    switch (operation) {
    case GET_REQ:
        return users.contains(key) ? read(users[key], user) : SECURITY_ERR_NOT_FOUND;
    case GETNEXT_REQ: {
        const auto next = users.upper_bound(key);
        if (next == users.end() || next->first.first != key.first) return SECURITY_ERR_END_OF_TABLE;
        return read(next->second, user);
    }
    case SET_REQ:
        if (user.encryption_type == SECURITY_ENCRYPTION_CLEAR)
            user.encryption_type = SECURITY_ENCRYPTION_CIPHER;
        users[key] = user;
        return SECURITY_OK;
    }
    return users.erase(key) == 1 ? SECURITY_OK : SECURITY_PSS_NO_KEY;
}

uint32_t serve(uint32_t operation, security_user_roles& list) {
    auto& roles = fake_daemon().roles;
    auto& lost = fake_daemon().lost_races;
    if (operation != GET_REQ && !lost.empty()) {
        const uint32_t status = lost.back();
        lost.pop_back();
        errno = ESTALE;
        return status;
    }
    if (operation == SET_REQ) roles.assign(list.roles, list.roles + list.num_roles);
    if (operation == DEL_REQ) std::erase(roles, list.roles[0]);
    list.num_roles = static_cast<int32_t>(roles.size());
    for (size_t i = 0; i < roles.size(); ++i) strcpy(list.roles[i], roles[i].c_str());
    return SECURITY_OK;
}

uint32_t serve(uint32_t, char&) { return SECURITY_OK; }

template <class Record>
uint32_t answer(int32_t type, uint32_t operation, const void* request, void** reply, uint32_t* length) {
    Record record;
    memcpy(&record, request, sizeof record);
    security_conf_cmi_byteorder_convert(type, &record);
    fake_daemon().requests.emplace_back(reinterpret_cast<const char*>(&record), sizeof record);
    if (length != nullptr) *length = 0;
    const uint32_t status =
        fake_daemon().answer != SECURITY_OK ? fake_daemon().answer : serve(operation, record);
    const bool replies = status == SECURITY_OK || status == SECURITY_ERR_CRYPT;
    if (!replies || reply == nullptr) return status;
    security_conf_cmi_byteorder_convert(type, &record);
    *length = sizeof record;
    *reply = malloc(sizeof record);
    memcpy(*reply, &record, sizeof record);
    return status;
}
}  // namespace

int32_t security_cmi(int32_t type, uint32_t operation, void* request, void** reply, uint32_t* length,
                     uint32_t) {
    if (type == SECURITY_ROLE_ASSIGN_REQUEST || type == SECURITY_ROLES_REQUEST)
        return static_cast<int32_t>(answer<security_user_roles>(type, operation, request, reply, length));
    if (type == SECURITY_BANNER_REQUEST)  // which asks whether there is a daemon
        return static_cast<int32_t>(answer<char>(type, operation, request, reply, length));
    return static_cast<int32_t>(type == SECURITY_USER_REQUEST
                                    ? answer<security_user>(type, operation, request, reply, length)
                                    : answer<security_priv_info>(type, operation, request, reply, length));
}

StandardInput::StandardInput(const std::string& bytes) : saved_(dup(STDIN_FILENO)) {
    const int file = memfd_create("standard input", MFD_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(file, bytes.data(), bytes.size()));
    lseek(file, 0, SEEK_SET);
    dup2(file, STDIN_FILENO);
    close(file);
}

StandardInput::~StandardInput() {
    dup2(saved_, STDIN_FILENO);
    close(saved_);
}

std::string StandardInput::left() const {
    char bytes[4096];
    const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
    return {bytes, count > 0 ? static_cast<size_t>(count) : 0};
}
