// Helpers of the benchmarks: latencies of single calls, binding to cores, and a store with many users.
#pragma once

#include <benchmark/benchmark.h>
#include <libdeflate.h>
#include <sched.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quillplatform/pss.h"
#include "quillsecurity.h"
#include "tests/support/box.h"

inline void require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "bench: %s\n", what);
    abort();
}

// Returns the number in $QUILL_BENCH_<name>, for a short trial run, else the usual one.
inline int number_of(const char* name, int usual) {
    const char* chosen = getenv((std::string("QUILL_BENCH_") + name).c_str());
    return chosen == nullptr ? usual : std::stoi(chosen);
}

// Measures each call of a benchmark; adds the median and the 99th percentile to its counters, in
// microseconds.
class Latencies {
 public:
    explicit Latencies(benchmark::State& state) : state_(state) { all_.reserve(1 << 20); }
    ~Latencies() {
        if (all_.empty()) return;
        std::sort(all_.begin(), all_.end());
        state_.counters["p50"] = all_[all_.size() / 2];
        state_.counters["p99"] = all_[all_.size() * 99 / 100];
    }
    Latencies(const Latencies&) = delete;
    Latencies& operator=(const Latencies&) = delete;

    template <class Call>
    void time(Call call) {
        const auto start = std::chrono::steady_clock::now();
        call();
        all_.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }

 private:
    benchmark::State& state_;
    std::vector<double> all_;
};

// Binds a process to one of the available cores, or with -1 to all of them.
inline void bind_to_core(pid_t process, int wanted) {
    static const cpu_set_t kAll = [] {
        cpu_set_t set;
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    cpu_set_t set = kAll;
    for (int core = 0, seen = 0; wanted >= 0 && core < CPU_SETSIZE; ++core)
        if (CPU_ISSET(core, &kAll) && seen++ != wanted) CPU_CLR(core, &set);
    require(CPU_COUNT(&set) > 0 && sched_setaffinity(process, sizeof set, &set) == 0,
            "a process cannot be bound to a core");
}

inline security_user user(int number) {
    security_user user{};
    snprintf(user.user_name, sizeof user.user_name, "user%07d", number);
    strcpy(user.password, "0123456789abcdef");
    return user;
}

// Pseudo-random numbers below a bound, the same in each run.
class Numbers {
 public:
    explicit Numbers(int bound) : bound_(static_cast<uint32_t>(bound)) {}
    int next() {
        state_ = state_ * 1664525 + 1013904223;
        return static_cast<int>((uint64_t{state_} * bound_) >> 32);
    }

 private:
    uint32_t bound_;
    uint32_t state_ = 1;
};

// The store's checksum of a record, as a function for SQL.
inline void crc32_of_both(sqlite3_context* context, int, sqlite3_value** bytes) {
    uint32_t checksum = 0;
    for (int i = 0; i < 2; ++i)
        checksum = libdeflate_crc32(checksum, sqlite3_value_blob(bytes[i]),
                                    static_cast<size_t>(sqlite3_value_bytes(bytes[i])));
    sqlite3_result_int64(context, checksum);
}

// Creates the store `name` with `count` users: the first by the library, the others as copies of its record,
// in one transaction.
inline void fill_store(const std::string& state, const char* name, int count) {
    uint32_t handle = 0;
    require(security_pss_create(&handle, name, 0, 0) == 0, "the store cannot be made");
    security_user first = user(0);
    require(security_user_config(handle, SET_REQ, &first) == 0 && pss2_close(handle) == 0,
            "the store cannot be written");
    sqlite3* database = nullptr;
    const std::string copies =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i + 1 < " +
        std::to_string(count) +
        "), copy AS MATERIALIZED (SELECT CAST(substr(key, 1, 4) || printf('user%07d', i) || zeroblob(128 - "
        "11) "
        "AS BLOB) AS key, value FROM record, n) INSERT INTO record SELECT key, value, crc32(key, value) FROM "
        "copy";
    const bool filled =
        sqlite3_open((state + "/" + name + ".db").c_str(), &database) == SQLITE_OK &&
        sqlite3_create_function(database, "crc32", 2, SQLITE_UTF8, nullptr, crc32_of_both, nullptr,
                                nullptr) == SQLITE_OK &&
        (count == 1 || sqlite3_exec(database, copies.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK);
    if (!filled) fprintf(stderr, "bench: %s\n", sqlite3_errmsg(database));
    require(filled, "the store cannot be filled");
    sqlite3_close(database);
}
