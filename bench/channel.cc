// What does a request cost, beside the bare exchange of as many bytes, a bare durable write, and Redis? On
// one core, where only the work counts, and on those that the scheduler chooses, where waking up counts as
// well.
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <memory>

#include "bench/measure.h"
#include "tests/support/daemon.h"
#include "tests/support/process.h"

namespace {

constexpr int kUsers = 10000;
constexpr size_t kRecord = sizeof(security_user);

const Box& box() {
    require(getenv("QUILL_IN_SANDBOX") != nullptr, "run it in packaging/sandbox: it makes /dev/log");
    static const Box kBox;
    return kBox;
}

// Made before anything is timed.
const security_user& user_record(int number) {
    static const std::vector<security_user> kAll = [] {
        std::vector<security_user> all;
        for (int i = 0; i < kUsers; ++i) all.push_back(user(i));
        return all;
    }();
    return kAll[static_cast<size_t>(number)];
}

// A child that goes with this process.
template <class Body>
pid_t start(Body body) {
    return start_child([&] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
    });
}

// Each server below answers `pid`, and what is asked of it.
struct Echo {
    int ends[2];
    pid_t pid;
    Echo() {
        require(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0, "no socket pair");
        pid = start([&] {
            char bytes[kRecord];
            for (ssize_t size; (size = recv(ends[1], bytes, sizeof bytes, 0)) > 0;)
                send(ends[1], bytes, static_cast<size_t>(size), 0);
        });
    }
    void ping_pong(int) {
        char bytes[kRecord] = {};
        require(send(ends[0], bytes, sizeof bytes, 0) == kRecord &&
                    recv(ends[0], bytes, sizeof bytes, 0) == kRecord,
                "the echo is gone");
    }
};

// As it is started on a device, with somebody who takes its log.
struct Service {
    pid_t pid;
    security_user place{};
    Service() {
        fill_store(box().state(), "security", kUsers);
        const int log = bound_socket(SOCK_DGRAM, "/dev/log");
        start([&] {
            char line[1024];
            while (recv(log, line, sizeof line, 0) >= 0) continue;
        });
        std::string printed;
        require(run_daemon_command({}, printed) == 0, printed.c_str());
        pid = RawClient().server();
    }
    ~Service() { kill(pid, SIGKILL); }
    static void ask(uint32_t operation, security_user& record) {
        require(cmi_security_user_config(1, operation, &record) == SECURITY_OK, "a request was refused");
    }
    void get(int number) {
        security_user record = user_record(number);
        ask(GET_REQ, record);
    }
    void get_next(int number) {
        if (number < 8) place = {};  // a walk that begins anew now and then
        ask(GETNEXT_REQ, place);
    }
    void set(int number) {
        security_user record = user_record(number);
        snprintf(record.password, sizeof record.password, "%016d",
                 ++changes);  // one that is there costs nothing
        ask(SET_REQ, record);
    }
    int changes = 0;
};

struct Redis {
    pid_t pid;
    redisContext* context = nullptr;
    explicit Redis(bool durable) {
        const std::string folder = box() / (durable ? "redis-durable" : "redis"), socket = folder + "/socket";
        require(mkdir(folder.c_str(), 0700) == 0, "no folder for Redis");
        pid = start([&] {
            dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
            execlp("redis-check-rdb", "redis-server", "--port", "0", "--unixsocket", socket.c_str(), "--dir",
                   folder.c_str(), "--save", "", "--appendonly", durable ? "yes" : "no", "--appendfsync",
                   "always", nullptr);
            _exit(127);
        });
        for (int i = 0; i < 500 && (context == nullptr || context->err != 0); ++i) {
            if (context != nullptr) redisFree(context);
            sleep_for(0.01);
            context = redisConnectUnix(socket.c_str());
        }
        require(context->err == 0, "redis-server does not answer");
        for (int i = 0; i < kUsers; ++i) set(i);
    }
    using Reply = std::unique_ptr<void, decltype(&freeReplyObject)>;
    void get(int number) {
        const Reply reply(redisCommand(context, "HGET users %s", user_record(number).user_name),
                          freeReplyObject);
        require(static_cast<redisReply*>(reply.get())->len == kRecord, "Redis lost a record");
    }
    void set(int number) {
        const security_user& record = user_record(number);
        const Reply reply(redisCommand(context, "HSET users %s %b", record.user_name, &record, sizeof record),
                          freeReplyObject);
        require(static_cast<redisReply*>(reply.get())->type == REDIS_REPLY_INTEGER, "Redis refused a record");
    }
};

// The floor of a durable change: a record with its length and a check sum, over the same bytes of a file.
struct File {
    pid_t pid = 0;
    int descriptor;
    File() : descriptor(open((box() / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        overwrite(0);
        fsync(descriptor);
    }
    void overwrite(int) {
        char bytes[kRecord + 8] = {};
        require(pwrite(descriptor, bytes, sizeof bytes, 0) == sizeof bytes && fdatasync(descriptor) == 0,
                "the file cannot be written");
    }
};

template <class Server, class... Arguments>
Server& one(Arguments... arguments) {
    static Server server(arguments...);
    return server;
}
Redis& redis() { return one<Redis>(false); }
Redis& durable_redis() {
    static Redis server(true);
    return server;
}

// On which cores a client and its server run; -1 leaves it to the scheduler.
struct Cores {
    const char* name;
    int client, server;
};
constexpr Cores kOneCore{"/one_core", 0, 0}, kTwoCores{"/two_cores", 0, 1}, kFree{"/free", -1, -1};

template <class Server>
void run(benchmark::State& state, Server& (*server)(), void (Server::*call)(int), const Cores& cores) {
    Server& asked = server();
    bind_to_core(0, cores.client);
    // The client notices after some requests how many cores it has.
    for (int i = 0; i < 300 && asked.pid != 0; ++i) (asked.*call)(i);
    if (asked.pid != 0) bind_to_core(asked.pid, cores.server);
    Numbers numbers(kUsers);
    {
        Latencies latencies(state);
        for (auto _ : state) latencies.time([&] { (asked.*call)(numbers.next()); });
    }
    bind_to_core(0, -1);
}

template <class Server>
bool measure(const char* name, Server& (*server)(), void (Server::*call)(int)) {
    for (const Cores& cores : {kOneCore, kTwoCores, kFree})
        benchmark::RegisterBenchmark((std::string(name) + cores.name).c_str(), run<Server>, server, call,
                                     cores)
            ->UseRealTime();
    return true;
}

[[maybe_unused]] const bool kMeasured[] = {
    measure("ping_pong", one<Echo>, &Echo::ping_pong),     measure("get", one<Service>, &Service::get),
    measure("get_next", one<Service>, &Service::get_next), measure("redis_get", redis, &Redis::get),
    measure("overwrite", one<File>, &File::overwrite),     measure("set", one<Service>, &Service::set),
    measure("redis_set", durable_redis, &Redis::set),
};

}  // namespace
