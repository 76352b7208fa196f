// quillsec password: checks a password by the rules for new ones.
#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <cstring>

#include "cli/command.h"
#include "cli/line.h"
#include "cli/quiet.h"
#include "cli/secret_input.h"
#include "quillsecurity.h"

namespace quill::cli {
namespace {

std::string caller() {
    const passwd* entry = getpwuid(getuid());
    return entry == nullptr ? std::to_string(getuid()) : std::string(entry->pw_name);
}

Answer check(const Arguments& arguments) {
    const std::string* given = arguments.find("--user");
    const std::string user = given ? *given : caller();
    Line password;
    // Also longer ones than an account can have: the check reports their length.
    read_secret({fmt::format("user '{}'", user), "password", kLongestLine, false}, arguments, password);
    password.bytes[password.length] = '\0';
    const uintptr_t objection = [&] {
        const QuietStandardError quiet;
        return security_user_password_check_psec_norm(0, password.bytes, user.c_str());
    }();
    if (objection == 0) return Remark{"accepted", {true, "this password is good enough"}};
    const std::string rule = reinterpret_cast<const char*>(objection);  // NOLINT: documented as an address
    if (lacks_dictionary(user, password.bytes))
        throw no_dictionary(fmt::format("user '{}'", user), "password");
    return {Remark{"accepted", {Json(false), rule}, {{"rule", rule}}}, Exit::kFailed};
}

std::string notes() {
    return "The rules are those for new users' passwords, and the switch password-strength turns them off.\n"
           "check ends with 0 if the password is accepted, with 1 if it breaks a rule, of which the first is\n"
           "shown, and with 3 without the dictionary of passwords.\n\n"
           "With --json: {\"accepted\": true or false}, and \"rule\" beside false: what the password breaks.";
}

constexpr Verb kVerbs[] = {
    {"check",
     "check a password",
     {{"--user", "whose it would be; without it, the caller's", Argument::kOptional, "NAME"}, kFromStdin},
     check},
};
}  // namespace

const Noun kPassword{"password", "the rules for passwords", notes, kVerbs};

}  // namespace quill::cli
