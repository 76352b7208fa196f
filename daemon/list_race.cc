#include "daemon/list_race.h"

#include <openssl/evp.h>

#include <algorithm>
#include <any>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "base/last_reads.h"
#include "base/text_field.h"
#include "daemon/account_records.h"
#include "quillsecurity/status.h"

namespace quill {
namespace {

using ReadLists = LastReads<std::string>;

const NameList& list_of(const Request& request) { return *reinterpret_cast<const NameList*>(request.record); }

// Returns the plain name: a list that was read under the qualified name may be stored under the plain one.
std::string user_of(const Request& request) {
    char name[sizeof NameList::user_name];
    copy_field(name, list_of(request).user_name);
    make_plain(name);
    return name;
}

// Returns what identifies the list: its names, each with a terminator, or a digest if they are long. A
// checksum is not enough: lists with the same one are easily made.
std::string token_of(const NameList& list) {
    constexpr size_t kLong = 256;
    std::string names;
    for (int32_t i = 0; i < std::clamp(list.count, 0, kMostNames); ++i)
        names.append(list.names[i], strnlen(list.names[i], sizeof list.names[i])).push_back('\0');
    if (names.size() <= kLong) return names;
    std::string digest(EVP_MAX_MD_SIZE, '\0');
    auto* const bytes = reinterpret_cast<unsigned char*>(digest.data());
    if (EVP_Digest(names.data(), names.size(), bytes, nullptr, EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
    digest.push_back('#');  // no list of names ends with this
    return digest;
}

}  // namespace

void remember_read_list(const Peer& peer, ConnectionState& state, const Request& request) {
    if (!peer.administrator) return;
    if (!state.has_value()) state.emplace<ReadLists>();
    std::any_cast<ReadLists&>(state).remember(request.type, user_of(request), token_of(list_of(request)));
}

void remember_stored_list(ConnectionState& state, const Request& request) {
    if (has_read_list(state, request))
        std::any_cast<ReadLists&>(state).remember(request.type, user_of(request), token_of(list_of(request)));
}

bool has_read_list(const ConnectionState& state, const Request& request) {
    const auto* lists = std::any_cast<ReadLists>(&state);
    return lists != nullptr && (lists->forgot() || lists->find(request.type, user_of(request)) != nullptr);
}

uint32_t check_race(const ConnectionState& state, const Request& request, const NameList& stored) {
    const auto* lists = std::any_cast<ReadLists>(&state);
    if (lists == nullptr) return SECURITY_OK;
    const std::string* read = lists->find(request.type, user_of(request));
    if (read == nullptr) return lists->forgot() ? SECURITY_ERR_CHANGED : SECURITY_OK;
    return *read == token_of(stored) ? SECURITY_OK : SECURITY_ERR_CHANGED;
}

}  // namespace quill
