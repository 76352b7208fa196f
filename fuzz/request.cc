// Messages of any bytes as the daemon receives them, any number in a row from peers of every kind, over the
// daemon's own routes. Its store may fail, and so may the programs for accounts, which are faked: nothing of
// the system is changed and nothing is started.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "daemon/account_files.h"
#include "daemon/account_tools.h"
#include "daemon/activation.h"
#include "daemon/announce.h"
#include "daemon/dispatch.h"
#include "daemon/homes.h"
#include "daemon/routes.h"
#include "daemon/self_test.h"
#include "fuzz/accounts.h"
#include "fuzz/input.h"
#include "platform/channel/frame.h"
#include "platform/channel/server.h"
#include "platform/hook.h"
#include "platform/mts/broadcast.h"
#include "quillsecurity.h"
#include "tests/fakes/world.h"

// ---- What the daemon finds around it

extern "C" {
pid_t fork() { return -1; }
int fsync(int) { return 0; }
int mkdir(const char*, mode_t) noexcept { return -1; }
}

namespace {

uint16_t failing_tools;  // a bit for each program that is run: whether it fails
bool killed;             // it then does its work and is killed

bool fails_now() {
    const bool fails = (failing_tools & 1) != 0;
    failing_tools = static_cast<uint16_t>(failing_tools >> 1);
    return fails;
}

// A program that works on the account of this name, or on a place for it.
template <class Work>
quill::AccountToolResult tool(Work work) {
    const bool fails = fails_now();
    if (!fails || killed) work(accounts().by_name);
    quill::AccountToolResult result;
    result.code = !fails ? 0 : killed ? 137 : 1;
    result.output = fails ? "tool: failed\n" : "";
    return result;
}

struct Service {
    uint32_t sap;
    std::function<void(const void*)> answer;
};
std::vector<Service> services;

}  // namespace

namespace quill {

AccountRemains remains_of(const char* stored) {
    AccountRemains remains;
    remains.known = !accounts().unreadable;
    remains.passwd = remains.shadow = remains.group = remains.ours =
        remains.known && accounts().by_name.contains(stored);
    return remains;
}
bool read_shadow(const char* stored, SecretBytes& text, ShadowEntry& entry) {
    const auto found = ::find_account(stored);
    if (found == accounts().by_name.end()) return false;
    append(text, found->second.password);
    entry = {view(text), 0, static_cast<int32_t>(found->second.expiry)};
    return true;
}
AccountNames find_account(const char* stored) {
    const bool found = !accounts().unreadable && accounts().by_name.contains(stored);
    return {!accounts().unreadable, found, found};
}
bool remove_lines(AccountFile, const char*, Deadline) { return !fails_now(); }

AccountLock::AccountLock() : held_(true) {}
AccountLock::~AccountLock() = default;
void allow_time_to_undo() {}
AccountToolResult make_account(const char* stored, const std::string&) {
    return tool([&](auto& users) { users.emplace(stored, FakeAccount()); });
}
AccountToolResult delete_account(const char* stored) {
    return tool([&](auto& users) { users.erase(stored); });
}
AccountToolResult delete_group(const char*) {
    return tool([](auto&) {});
}
AccountToolResult set_expiry(const char* stored, const std::string& expiry) {
    return tool([&](auto& users) { users.at(stored).expiry = expiry.empty() ? -1 : std::stol(expiry); });
}
AccountToolResult set_last_change(const char*, int32_t) {
    return tool([](auto&) {});
}
AccountToolResult set_stored_password(const char* stored, const char* password) {
    require(strpbrk(password, ":\n") == nullptr);
    return tool([&](auto& users) { users.at(stored).password = password; });
}
AccountToolResult set_clear_password(const char* stored, const char* password) {
    require(strpbrk(password, "\r\n") == nullptr);
    return tool([&](auto& users) { users.at(stored).password = password; });
}

bool set_home_aside(const char*) { return true; }
void remove_mail(const char*) {}
bool remove_old_homes(std::chrono::milliseconds) { return false; }

std::string find_hook(const std::string&) { return ""; }
bool start_hook(const std::string&, const std::string&, std::chrono::seconds) { abort(); }
bool write_file(const std::string&, std::string_view, unsigned) { abort(); }

struct Broadcast::Ring {};
Broadcast::Broadcast(event_base*, gid_t, uint32_t) {}
Broadcast::~Broadcast() = default;
uint32_t Broadcast::handle() const { return 5; }
void Broadcast::serve(uint32_t sap, std::function<void(const void*)> service) {
    services.push_back({sap, std::move(service)});
}

}  // namespace quill

// ---- What a client sends

namespace {

using quill::Answer;
using quill::Peer;
using quill::RequestHeader;
using quill::Route;

constexpr Peer kPeers[] = {
    {false, false, 0, 1}, {true, false, 1000, 2}, {true, true, 0, 3}, {true, true, 1000, 4}};

bool reads(uint32_t operation) { return operation == GET_REQ || operation == GETNEXT_REQ; }

// Whether the store was called, or written to, since its calls were last cleared.
bool was_called() { return !world().calls.empty(); }
bool was_written() {
    return std::ranges::any_of(
        world().calls, [](const std::string& call) { return call == "pss2_store" || call == "pss2_delete"; });
}

const Route* route_of(uint32_t type, size_t length) {
    for (const Route& route : quill::routes())
        if (route.type == type && route.size == length) return &route;
    return nullptr;
}

// Of a request that no route takes.
uint32_t refusal_of(const quill::Request& request) {
    for (const Route& route : quill::routes())
        if (route.type == request.type) return SECURITY_ERR_REQUEST_SIZE;
    return SECURITY_ERR_REQUEST_TYPE;
}

bool may(const Route& route, const Peer& peer, uint32_t operation) {
    const quill::Access needed = reads(operation) ? route.rights.read : route.rights.write;
    return peer.known && needed != quill::Access::kNobody &&
           (needed == quill::Access::kEveryone || peer.administrator);
}

void check(const Peer& peer, const quill::Request& request, const Answer& answer) {
    const Route* route = route_of(request.type, request.length);
    require(answer.length == 0 || answer.length == request.length);
    require(peer.administrator || !was_written());
    if (route == nullptr || !may(*route, peer, request.operation)) {
        require(!was_called() && answer.length == 0 && !answer.changed);
        require(answer.status == (route != nullptr ? SECURITY_ERR_NOT_PERMITTED : refusal_of(request)));
        return;
    }
    require(answer.length == 0 || answer.status == SECURITY_OK || (route->flags & quill::kExplains) != 0);
    require(answer.changed || !was_written() || reads(request.operation));
    // Nobody has a list or a password but who has an account.
    constexpr uint32_t kOfAccounts[] = {SECURITY_PASSWD_REQUEST, SECURITY_ROLE_ASSIGN_REQUEST,
                                        SECURITY_ROLES_REQUEST, SECURITY_LOCALE_ASSIGN_REQUEST};
    if (std::ranges::find(kOfAccounts, request.type) != std::end(kOfAccounts) &&
        request.operation == SET_REQ && answer.status == SECURITY_OK) {
        const auto* name = reinterpret_cast<const char*>(request.record);
        require(accounts().by_name.contains(security_get_system_username(name)));
    }
    // An account that was made or changed leaves nothing to be repaired.
    const bool account = request.type == SECURITY_USER_MANAGE_REQUEST && request.operation == SET_REQ;
    require(!account || answer.status != SECURITY_OK || !world().store.contains(be32(0x10000)));
}

// As the loop takes a message apart.
void receive(const Peer& peer, quill::ConnectionState& state, const std::string& message) {
    RequestHeader head{};
    memcpy(static_cast<void*>(&head), message.data(), std::min(sizeof head, message.size()));
    if (!quill::well_formed(head, message.size()) ||
        memchr(head.user_name, '\0', sizeof head.user_name) == nullptr)
        return;
    // A block of exactly the record's length, and aligned as the loop's.
    const std::unique_ptr<unsigned char, decltype(&free)> record(
        static_cast<unsigned char*>(malloc(head.length)), free);
    memcpy(record.get(), message.data() + sizeof head, head.length);
    quill::Request request{head.request_type, head.operation, head.session,
                           head.user_name,    record.get(),   head.length};
    world().calls.clear();
    check(peer, request, quill::dispatch(quill::routes(), kHandle, peer, state, request));
}

// A message of the given bytes, or a head that fits a route and a patched record.
std::string message(Input& input, bool raw) {
    if (raw) return std::string(input.bytes(input.half()));
    const uint8_t which = input.byte();
    const Route& route = quill::routes()[which % quill::routes().size()];
    RequestHeader head{};
    head.request_type = route.type;
    head.operation = input.byte();
    head.length = route.size;
    std::string bytes(sizeof head + route.size, '\0');
    memcpy(bytes.data(), static_cast<const void*>(&head), sizeof head);
    input.patch({reinterpret_cast<uint8_t*>(bytes.data()) + sizeof head, route.size});
    if ((which & 0x80) != 0) input.patch({reinterpret_cast<uint8_t*>(bytes.data()), sizeof head});
    return bytes;
}

// What reaches a service point of the daemon on the message transport.
void transport(Input& input) {
    const Service& service = services.at(input.byte() % services.size());
    FakeMessage announced{SECURITY_MTS_SELF_TEST, std::string(input.bytes(input.byte()))};
    // The tests themselves compute for milliseconds, and none of the message.
    const bool asks = service.sap == MTS_SAP_SELF_TEST;
    if (!asks || announced.payload->empty() || announced.payload->front() != 1) service.answer(&announced);
    security_notification change;
    announced.opcode = SECURITY_MTS_USER_CHANGE;
    security_mts_usernotif_parser(&announced, &change);
}

constexpr const char* kCalls[] = {"pss2_fetch",    "pss2_store",         "pss2_delete",
                                  "pss2_move2key", "pss2_move2location", "pss2_getvalue"};

void set_up() {
    setlogmask(LOG_MASK(LOG_EMERG));
    setenv("QUILL_RUNTIME_DIR", "/dev/null/none", 1);
    static quill::Broadcast broadcast(nullptr, 0, 1);
    quill::announce_on(broadcast.handle());
    quill::serve_self_tests(broadcast);
}

void start_over(Input& input) {
    world() = World();
    world().history = false;
    world().roles = {"network-operator", "vdc-admin"};
    world().locales = {"here"};
    accounts() = FakeAccounts();
    const uint8_t failing = input.byte(), after = input.byte();
    failing_tools = input.half();
    killed = (failing & 0x80) != 0;
    accounts().unreadable = (failing & 0x40) != 0;
    world().vdc = (failing & 0x20) != 0 ? 2 : 1;
    if ((failing & 0xf) >= std::size(kCalls)) return;
    world().answer[kCalls[failing & 0xf]] = 0x40480005;
    world().fail_after[kCalls[failing & 0xf]] = after;
}

}  // namespace

// What fails and when, four bytes; then messages: a byte for the peer and the kind, and what that takes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool kReady = (set_up(), true);
    static_cast<void>(kReady);
    Input input(data, size);
    start_over(input);
    quill::ConnectionState states[std::size(kPeers)];
    for (int messages = 0; !input.ended() && messages < 16; ++messages) {
        const uint8_t kind = input.byte();
        if ((kind & 0xc0) == 0xc0)
            transport(input);
        else
            receive(kPeers[kind % std::size(kPeers)], states[kind % std::size(kPeers)],
                    message(input, (kind & 0x80) != 0));
    }
    quill::activate_changes(kHandle);
    return 0;
}
