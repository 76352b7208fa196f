// How long does a request take, compared with an exchange of as many bytes, a durable write and Redis?
// Measured on one core, which shows the work alone, and on the cores that the scheduler chooses, which
// includes waking up.
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
    require(getenv("QUILL_IN_SANDBOX") != nullptr, "run it in packaging/sandbox: it creates /dev/log");
    static const Box kBox;
    return kBox;
}

// Made before the measurement begins.
const security_user& user_record(int number) {
    static const std::vector<security_user> kAll = [] {
        std::vector<security_user> all;
        for (int i = 0; i < kUsers; ++i) all.push_back(user(i));
        return all;
    }();
    return kAll[static_cast<size_t>(number)];
}

// Starts a child that is killed when this process ends.
template <class Body>
pid_t start(Body body) {
    return start_child([&] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
    });
}

// Each server below has a process id `pid` (0: none) and a function for each kind of request.
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

// quillsecurityd, started as on a device, with a reader of its log.
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
        if (number < 8) place = {};  // begins again now and then
        ask(GETNEXT_REQ, place);
    }
    void set(int number) {
        security_user record = user_record(number);
        snprintf(record.password, sizeof record.password, "%016d",
                 ++changes);  // storing the same value again would take no time
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

// The floor of a durable change: overwriting a record with its length and checksum in a file.
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

// The cores on which a client and its server run; -1: any.
struct Cores {
    const char* name;
    int client, server;
};
constexpr Cores kOneCore{"/one_core", 0, 0}, kTwoCores{"/two_cores", 0, 1}, kFree{"/free", -1, -1};

template <class Server>
void run(benchmark::State& state, Server& (*server)(), void (Server::*call)(int), const Cores& cores) {
    Server& target = server();
    bind_to_core(0, cores.client);
    // The client adapts to the number of cores after some requests.
    for (int i = 0; i < 300 && target.pid != 0; ++i) (target.*call)(i);
    if (target.pid != 0) bind_to_core(target.pid, cores.server);
    Numbers numbers(kUsers);
    {
        Latencies latencies(state);
        for (auto _ : state) latencies.time([&] { (target.*call)(numbers.next()); });
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
