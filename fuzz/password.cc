// Passwords and user names of any bytes: those that are accepted follow the rules, and the functions that
// reverse, sort and lower texts neither lose nor add bytes. Cracklib is replaced by a stub that accepts or
// refuses all passwords.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <memory>
#include <string>

#include "fuzz/input.h"
#include "quillsecurity.h"
#include "tests/fakes/world.h"

namespace {

const char* objection;

// A block of exactly the text's size, so that sanitizers see accesses beyond it.
std::unique_ptr<char, decltype(&free)> block(const std::string& text) { return {strdup(text.c_str()), free}; }

bool repeats(const std::string& password) {
    for (size_t i = 2; i < password.size(); ++i)
        if (password[i] == password[i - 1] && password[i] == password[i - 2]) return true;
    return false;
}

void check(const std::string& name, const std::string& password) {
    const auto name_block = block(name), password_block = block(password);
    const char* message = security_check_strength_main(name_block.get(), password_block.get());
    require(password == password_block.get() && name == name_block.get());
    require(message == nullptr || (*message != '\0' && strlen(message) < 256));
    const std::string seen = password.substr(0, 255);
    if (message == nullptr)
        require(!name.empty() && password.size() >= 8 && seen.find_first_of("$=") == seen.npos &&
                !repeats(seen) && seen != name.substr(0, 255));

    const auto judged = reinterpret_cast<const char*>(
        security_user_password_check_psec_norm(0, password_block.get(), name_block.get()));
    const char* expected = message != nullptr ? message : objection;
    require((judged == nullptr) == (expected == nullptr));
    if (judged != nullptr) require(strcmp(judged, expected) == 0);
    if (judged != nullptr) require(strcmp(cmi_common_user_err_str, judged) == 0);
}

void check_conversions(const std::string& text) {
    const auto converted = block(text);
    reverse_fun(converted.get());
    require(std::equal(text.rbegin(), text.rend(), converted.get()));
    reverse_fun(converted.get());
    require(converted.get() == text);
    change_to_lower(converted.get());
    const std::string lower = converted.get();
    require(lower.size() == text.size() && lower == change_to_lower(converted.get()));
    const char* sorted = bin_sort_fun(converted.get());
    require(std::is_permutation(lower.begin(), lower.end(), sorted, sorted + strlen(sorted)));
    const auto before = [](char a, char b) {
        return static_cast<signed char>(a) < static_cast<signed char>(b);
    };
    require(std::is_sorted(sorted, sorted + strlen(sorted), before));
}

}  // namespace

extern "C" const char* FascistCheck(const char*, const char*) { return objection; }

// The dictionary's files exist, with arbitrary content.
extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    const bool dictionary = strncmp(path, "/tovo/", 6) == 0;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, dictionary ? "/dev/zero" : path, flags, mode));
}

// Input: whether cracklib refuses, the length of the name, the name, the password.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    world().history = false;
    world().requests.clear();
    Input input(data, size);
    objection = input.byte() % 2 != 0 ? "it is based on a dictionary word" : nullptr;
    const std::string name(std::string(input.bytes(input.half() % 512)).c_str());
    const std::string password(std::string(input.rest()).c_str());
    check(name, password);
    check_conversions(password);
    return 0;
}
