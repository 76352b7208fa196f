// How long does a handler take, compared with the SQLite statement that does the same, and does that depend
// on the number of records? Run with QUILL_TRACE set as it is to be measured.
#include <filesystem>
#include <map>
#include <memory>

#include "bench/measure.h"

namespace {

// A store with so many users, opened for the handlers, and a copy of it, opened with SQLite.
struct Users {
    Box box;
    int count;
    uint32_t handle = 0;
    sqlite3* database = nullptr;
    sqlite3_stmt *get = nullptr, *get_next = nullptr, *set = nullptr;

    explicit Users(int number) : count(number) {
        const std::string name = std::to_string(number), copy = box.state() + "/copy.db";
        fill_store(box.state(), name.c_str(), number);
        std::filesystem::copy(box.state() + "/" + name + ".db", copy);
        require(security_pss_create(&handle, name.c_str(), 0, 0) == 0, "the store cannot be opened");
        require(sqlite3_open_v2(copy.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                                nullptr) == SQLITE_OK &&
                    sqlite3_exec(database,
                                 "PRAGMA locking_mode=EXCLUSIVE; PRAGMA synchronous=FULL; PRAGMA "
                                 "secure_delete=ON; SELECT 1 FROM record LIMIT 1",
                                 nullptr, nullptr, nullptr) == SQLITE_OK,
                "the copy cannot be opened");
        prepare(get, "SELECT value FROM record WHERE key = ?1");
        prepare(get_next, "SELECT key, value FROM record WHERE key > ?1 ORDER BY key LIMIT 1");
        prepare(
            set,
            "INSERT INTO record(key, value, sum) VALUES(?1, ?2, 0) ON CONFLICT(key) DO UPDATE SET value = "
            "excluded.value");
    }
    void prepare(sqlite3_stmt*& statement, const char* text) {
        require(sqlite3_prepare_v2(database, text, -1, &statement, nullptr) == SQLITE_OK, text);
    }
    static Users& of(int64_t number) {
        static std::map<int64_t, std::unique_ptr<Users>> all;
        auto& users = all[number];
        if (users == nullptr) users = std::make_unique<Users>(static_cast<int>(number));
        return *users;
    }
};

struct Key {
    char bytes[132] = {0, 0, 0, 5};
    explicit Key(int number) { memcpy(bytes + 4, user(number).user_name, 128); }
};

int step(sqlite3_stmt* statement, const Key& key) {
    sqlite3_bind_blob(statement, 1, key.bytes, sizeof key.bytes, SQLITE_STATIC);
    return sqlite3_step(statement);
}

// Copies a column of the row, as any use of it would, and resets the statement.
bool copy_column(sqlite3_stmt* statement, int column, void* bytes, int size) {
    const void* found = sqlite3_column_blob(statement, column);
    const bool complete = found != nullptr && sqlite3_column_bytes(statement, column) == size;
    if (complete) memcpy(bytes, found, static_cast<size_t>(size));
    sqlite3_reset(statement);
    return complete;
}

void ask(const Users& users, uint32_t operation, security_user& record) {
    require(security_user_config(users.handle, operation, &record) == SECURITY_OK, "a handler failed");
}

void get(benchmark::State& state) {
    const Users& users = Users::of(state.range(0));
    Numbers numbers(users.count);
    for (auto _ : state) {
        security_user record = user(numbers.next());
        ask(users, GET_REQ, record);
        benchmark::DoNotOptimize(record);
    }
}

void sqlite_get(benchmark::State& state) {
    const Users& users = Users::of(state.range(0));
    Numbers numbers(users.count);
    char value[136];
    for (auto _ : state) {
        const Key key(numbers.next());
        require(step(users.get, key) == SQLITE_ROW && copy_column(users.get, 0, value, sizeof value),
                "no row");
        benchmark::DoNotOptimize(value);
    }
}

void get_next(benchmark::State& state) {
    const Users& users = Users::of(state.range(0));
    security_user record{};
    for (auto _ : state) {
        if (security_user_config(users.handle, GETNEXT_REQ, &record) == SECURITY_OK) continue;
        record = {};
    }
}

void sqlite_get_next(benchmark::State& state) {
    const Users& users = Users::of(state.range(0));
    Key key(0);
    char value[136];
    for (auto _ : state) {
        if (step(users.get_next, key) != SQLITE_ROW) {
            sqlite3_reset(users.get_next);
            key = Key(0);
            continue;
        }
        memcpy(key.bytes, sqlite3_column_blob(users.get_next, 0), sizeof key.bytes);
        require(copy_column(users.get_next, 1, value, sizeof value), "no row");
        benchmark::DoNotOptimize(value);
    }
}

int changes;

void set(benchmark::State& state) {
    const Users& users = Users::of(state.range(0));
    Numbers numbers(users.count);
    for (auto _ : state) {
        security_user record = user(numbers.next());
        snprintf(record.password, sizeof record.password, "%016d", ++changes);
        ask(users, SET_REQ, record);
    }
}

void sqlite_set(benchmark::State& state) {
    const Users& users = Users::of(state.range(0));
    Numbers numbers(users.count);
    char value[136] = {};
    for (auto _ : state) {
        const Key key(numbers.next());
        snprintf(value + 8, 17, "%016d", ++changes);
        sqlite3_bind_blob(users.set, 2, value, sizeof value, SQLITE_STATIC);
        require(step(users.set, key) == SQLITE_DONE, "no change");
        sqlite3_reset(users.set);
    }
}

#define MEASURE(call) BENCHMARK(call)->Arg(100)->Arg(10000)->Arg(1000000)->UseRealTime()
MEASURE(sqlite_get);
MEASURE(get);
MEASURE(sqlite_get_next);
MEASURE(get_next);
MEASURE(sqlite_set);
MEASURE(set);

}  // namespace
