// The password strength check: our own rules first, then cracklib.
//
// A rule is a function that returns the message for the user if the password breaks it, else null.
// The message of the first broken rule is reported. Rules see the first 255 characters of the name
// and the password.

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/dictionary.h"
#include "base/text_field.h"
#include "base/wiped.h"
#include "library/common/trace.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr uint32_t kNoConnection = 0xffffffff;
constexpr size_t kMinLength = 8;
constexpr size_t kMaxRepeats = 2;
constexpr int kMinClasses = 3;
constexpr size_t kCopy = 256;

char rule_message[1024];

const char* or_empty(const char* text) { return text == nullptr ? "" : text; }

// Copies of the name and the password, zero behind the text.
struct CandidateTexts {
    size_t length;  // of the whole password, also if the copy is cut
    char user_name[kCopy];
    char password[kCopy];
};
struct Candidate : Wiped<CandidateTexts> {
    Candidate(const char* name, const char* text) {
        length = strlen(text);
        set_text(user_name, name);
        set_text(password, text);
    }
};

// By the current locale. The tables of glibc cover signed characters.
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
    return c.length < kMinLength ? "Password should be at least 8 characters." : nullptr;
}

// Two rules in one pass: the one broken first in the password is reported.
const char* forbidden_or_repeated(const Candidate& c) {
    char previous = '\0';
    size_t repeats = 0;
    for (const char* at = c.password; *at != '\0'; ++at) {
        if (*at == '$' || *at == '=') return "Special characters '$' and '=' are not supported.";
        repeats = *at == previous ? repeats + 1 : 1;
        previous = *at;
        if (repeats > kMaxRepeats)
            return "Password shouldn't contain characters, repeated three or more times consecutively.";
    }
    return nullptr;
}

const char* too_few_classes(const Candidate& c) {
    unsigned classes = 0;
    for (const char* at = c.password; *at != '\0'; ++at) classes |= class_of(*at);
    if (__builtin_popcount(classes) >= kMinClasses) return nullptr;
    return "Password should contain characters from at least three of the following classes: "
           "lower case letters, upper case letters, digits and special characters.";
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

// Returns false if the administrator has switched the check off. A switch that cannot be read counts as on.
bool checks_on(uint32_t connection) {
    uint32_t on = 1;
    if (connection != kNoConnection)
        cmi_enable_info_config(connection, GET_REQ, SECURITY_SERVICE_PASSWORD_STRENGTH, &on);
    return on != 0;
}

// Returns the message of the first broken rule, ours or cracklib's, or null.
const char* find_broken_rule(const char* password, const char* user_name) {
    if (const char* message = security_check_strength_main(user_name, password)) {
        trace("Implementing our own checks: security_check_strength_main() func called");
        return message;
    }
    const char* message = check_dictionary(password).reason;
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
    const char* message = find_broken_rule(or_empty(password), or_empty(user_name));
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

// Leaves the first character unchanged: callers depend on the order that this gives.
char* change_to_lower(char* text) {
    if (text == nullptr || *text == '\0') return text;
    for (char* at = text + 1; *at != '\0'; ++at)
        *at = static_cast<char>(tolower(static_cast<signed char>(*at)));
    return text;
}
