// Is this password good enough? Our own rules first, then cracklib's.
//
// A rule is a small function that answers the message of the broken rule, or null; the first one broken is
// what the user sees. They look at bounded copies: 255 characters of a name or password decide.
#include <fcntl.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

extern "C" {
#include <crack.h>
}

#include "common/text_field.h"
#include "common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kDictionary[] = "/tovo/etc/quillsecurity/cracklib_dict";
constexpr char kNoDictionary[] = "error loading dictionary";
constexpr uint32_t kNoConnection = 0xffffffff;
constexpr size_t kShortest = 8;
constexpr size_t kMostRepeats = 2;
constexpr int kFewestClasses = 3;
constexpr size_t kCopy = 256;

char rule_message[1024];

const char* or_empty(const char* text) { return text == nullptr ? "" : text; }

// Zeroed working copies, wiped when the check is over.
struct Candidate {
    size_t length;  // of the whole password
    char user_name[kCopy] = "";
    char password[kCopy] = "";

    Candidate(const char* name, const char* text) : length(strlen(text)) {
        strncpy(user_name, name, kCopy - 1);
        strncpy(password, text, kCopy - 1);
    }
    ~Candidate() { OPENSSL_cleanse(password, sizeof password); }
    Candidate(const Candidate&) = delete;
    Candidate& operator=(const Candidate&) = delete;
};

// The system's character table, asked with signed bytes: glibc's covers them.
enum CharacterClass { kLower = 1, kUpper = 2, kDigit = 4, kSpecial = 8, kNone = 0 };

CharacterClass class_of(char c) {
    const int byte = static_cast<signed char>(c);
    if (isalpha(byte) != 0) return islower(byte) != 0 ? kLower : kUpper;
    if (isdigit(byte) != 0) return kDigit;
    return isspace(byte) != 0 ? kNone : kSpecial;
}

const char* name_missing(const Candidate& c) {
    return *c.user_name == '\0' ? "User name is not supplied, I can't verify the password strength."
                                : nullptr;
}

const char* password_missing(const Candidate& c) {
    return c.length == 0 ? "Password supplied is not valid." : nullptr;
}

const char* too_short(const Candidate& c) {
    return c.length < kShortest ? "Password should be at least 8 characters." : nullptr;
}

// Both in one pass: what stands first in the password is what the user hears of.
const char* forbidden_or_repeated(const Candidate& c) {
    char previous = '\0';
    size_t repeats = 0;
    for (const char* at = c.password; *at != '\0'; ++at) {
        if (*at == '$' || *at == '=') return "Special characters '$' and '=' are not supported.";
        repeats = *at == previous ? repeats + 1 : 1;
        previous = *at;
        if (repeats > kMostRepeats)
            return "Password shouldn't contain characters, repeated three or more times consecutively.";
    }
    return nullptr;
}

const char* too_few_classes(const Candidate& c) {
    unsigned classes = 0;
    for (const char* at = c.password; *at != '\0'; ++at) classes |= class_of(*at);
    if (__builtin_popcount(classes) >= kFewestClasses) return nullptr;
    return "Password should contain characters from at least three of the following classes: lower case "
           "letters, "
           "upper case letters, digits and special characters.";
}

const char* same_as_name(const Candidate& c) {
    char reversed[kCopy];
    strcpy(reversed, c.user_name);
    reverse_fun(reversed);
    const bool same = strcmp(c.password, c.user_name) == 0 || strcmp(c.password, reversed) == 0;
    return same ? "Password should not be same as username or reverse of it." : nullptr;
}

using Rule = const char* (*)(const Candidate&);
constexpr Rule kRules[] = {name_missing,          password_missing, too_short,
                           forbidden_or_repeated, too_few_classes,  same_as_name};

// Checks are on unless the administrator has switched them off; a switch that cannot be read leaves them on.
bool checks_on(uint32_t connection) {
    uint32_t on = 1;
    if (connection != kNoConnection)
        cmi_enable_info_config(connection, GET_REQ, SECURITY_SERVICE_PASSWORD_STRENGTH, &on);
    return on != 0;
}

// Cracklib says so itself of a dictionary that is missing, but finds nothing in an empty one: every password
// would be good.
bool dictionary_is_empty() {
    for (const char* part : {".pwd", ".pwi", ".hwm"}) {
        char path[sizeof kDictionary + 4];
        snprintf(path, sizeof path, "%s%s", kDictionary, part);
        const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
        char byte;
        if (descriptor < 0) continue;
        const bool empty = read(descriptor, &byte, 1) != 1;
        close(descriptor);
        if (empty) return true;
    }
    return false;
}

const char* objection(const char* password, const char* user_name) {
    if (const char* message = security_check_strength_main(user_name, password)) {
        trace("Implementing our own checks: security_check_strength_main() func called");
        return message;
    }
    const char* message = dictionary_is_empty() ? kNoDictionary : FascistCheck(password, kDictionary);
    if (message != nullptr) trace("Implementing cracklib checks: FascistCheck func called");
    return message;
}

}  // namespace
}  // namespace quill

uintptr_t security_user_password_check_psec_norm(uint32_t connection, const char* password,
                                                 const char* user_name) {
    using namespace quill;
    trace("In %s:", __func__);
    if (!checks_on(connection)) return 0;
    const char* message = objection(or_empty(password), or_empty(user_name));
    if (message == nullptr) return 0;
    set_text(cmi_common_user_err_str, message);
    return reinterpret_cast<uintptr_t>(message);
}

char* security_check_strength_main(const char* user_name, const char* password) {
    using namespace quill;
    const Candidate candidate(or_empty(user_name), or_empty(password));
    rule_message[0] = '\0';
    for (const Rule rule : kRules) {
        const char* message = rule(candidate);
        if (message == nullptr) continue;
        snprintf(rule_message, sizeof rule_message, "%s", message);
        return rule_message;
    }
    return nullptr;
}

char* reverse_fun(char* text) {
    const size_t length = text == nullptr ? 0 : strlen(text);
    for (size_t i = 0; i < length / 2; ++i) std::swap(text[i], text[length - 1 - i]);
    return text;
}

char* bin_sort_fun(char* text) {
    const size_t length = text == nullptr ? 0 : strlen(text);
    for (size_t i = 1; i < length; ++i)
        for (size_t at = i;
             at > 0 && static_cast<signed char>(text[at - 1]) > static_cast<signed char>(text[at]); --at)
            std::swap(text[at - 1], text[at]);
    return text;
}

// The first character is left as it is; callers have sorted by that ever since.
char* change_to_lower(char* text) {
    if (text == nullptr || *text == '\0') return text;
    for (char* at = text + 1; *at != '\0'; ++at)
        *at = static_cast<char>(tolower(static_cast<signed char>(*at)));
    return text;
}
