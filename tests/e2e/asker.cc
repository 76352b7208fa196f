// Sends requests that quillsec does not send, for scripts.
//
//   asker load CONNECTIONS SECONDS  looks up the roles of unknown names over so many connections at once, and
//                                   prints how long another client waits, in milliseconds (99th percentile)
//   asker orphans                   drops the records of users without an account; prints how many
//   asker roles NAME                prints the status and, after success, how many roles there are
//   asker key NAME                  prints the status
//   asker hash NAME HASH            sets a stored password; prints the status
//   asker change COUNT              changes the roles of root so many times
//   asker delete NAME               deletes an account that quillsec may not see; prints the status
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "quillplatform/shell.h"
#include "quillsecurity.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"

namespace {

std::string unknown_name() {
    static int number = 0;
    std::string record = "nobody" + std::to_string(++number);
    record.resize(sizeof(security_user_roles));
    return request_frame(SECURITY_ROLES_REQUEST, GET_REQ, record);
}

// One request of each connection is always waiting.
void load(int connections, const double& end) {
    std::vector<RawClient> clients(static_cast<size_t>(connections));
    for (auto& client : clients) client.send(unknown_name());
    while (seconds_now() < end) {
        for (auto& client : clients) {
            if (client.receive().empty()) exit(3);
            client.send(unknown_name());
        }
    }
}

int measure(int connections, double seconds) {
    const double end = seconds_now() + seconds;
    std::thread others(load, connections, std::cref(end));
    RawClient client;
    const std::string question = service_frame(GET_REQ, SECURITY_SERVICE_SSH, 0);
    std::vector<double> waits;
    sleep_for(0.2);
    while (seconds_now() < end || waits.size() < 20) {
        const double start = seconds_now();
        if (client.ask(question).empty()) return 3;
        waits.push_back(seconds_now() - start);
        sleep_for(0.005);
    }
    others.join();
    std::sort(waits.begin(), waits.end());
    printf("%.1f\n", waits[waits.size() * 99 / 100] * 1000);
    return 0;
}

int change_roles(int count) {
    security_user_roles record{"root", 2, {"network-operator", "vdc-operator"}};
    for (; count > 0; --count) {
        uint32_t length = sizeof record;
        if (security_cmi2(SECURITY_ROLES_REQUEST, SET_REQ, &record, nullptr, &length, 0) != 0) return 1;
    }
    return 0;
}

template <class Record>
Record of_user(const char* name) {
    Record record{};
    strncpy(record.user_name, name, sizeof record.user_name - 1);
    return record;
}

template <class Record>
int ask(int32_t type, uint32_t operation, Record record, int32_t Record::*count = nullptr) {
    void* reply = nullptr;
    uint32_t length = sizeof record;
    const int32_t status = security_cmi(type, operation, &record, &reply, &length, 0);
    if (reply != nullptr) memcpy(static_cast<void*>(&record), reply, sizeof record);
    free(reply);
    printf("%#x", static_cast<uint32_t>(status));
    if (status == 0 && count != nullptr) printf(" %d", record.*count);
    puts("");
    return 0;
}

struct Orphans {
    int32_t dropped;
};

}  // namespace

int main(int count, char** arguments) {
    const std::string what = count > 1 ? arguments[1] : "";
    const char* name = count > 2 ? arguments[2] : nullptr;
    if (what == "load" && count == 4) return measure(atoi(arguments[2]), atof(arguments[3]));
    if (what == "change" && name) return change_roles(atoi(name));
    if (what == "orphans") return ask(SECURITY_ORPHANS_REQUEST, DEL_REQ, Orphans{}, &Orphans::dropped);
    if (what == "roles" && name)
        return ask(SECURITY_ROLES_REQUEST, GET_REQ, of_user<security_user_roles>(name),
                   &security_user_roles::num_roles);
    if (what == "key" && name) return ask(SECURITY_USER_LOOKUP_REQUEST, GET_REQ, of_user<ssh_key_rec>(name));
    if (what == "delete" && name)
        return ask(SECURITY_USER_MANAGE_REQUEST, DEL_REQ, of_user<security_user_manage>(name),
                   &security_user_manage::return_code);
    if (what == "hash" && count == 4) {
        security_user_manage record = of_user<security_user_manage>(name);
        strncpy(record.password, arguments[3], sizeof record.password - 1);
        return ask(SECURITY_USER_MANAGE_REQUEST, SET_REQ, record);
    }
    return 2;
}
