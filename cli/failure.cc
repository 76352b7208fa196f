// One table has the exit code, remedy and message of every status. Requests that were not delivered have rows
// too, since their status contains the errno.
#include "cli/failure.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include "base/context_name.h"
#include "base/status.h"
#include "quillplatform/pss.h"
#include "quillplatform/sysmgr.h"

namespace quill::cli {
namespace {

// Returns true if the daemon may have executed the request, but its reply did not arrive.
constexpr bool is_unanswered(uint32_t status) {
    return status == undelivered_status(ETIMEDOUT) || status == undelivered_status(ECONNRESET);
}

constexpr int errno_of(uint32_t status) { return static_cast<int>(status & kStatusErrno); }

constexpr const char* kSpelling = "check how it is spelled";
constexpr const char* kSameVersion = "install quillsec and quillsecurityd of the same version";
constexpr const char* kSeeLog = "see the log of quillsecurityd";
constexpr const char* kSeeDaemon = "see that quillsecurityd runs and read its log";

struct Meaning {
    uint32_t status;
    Exit exit;
    const char* remedy;
    // Instead of the text of syserr2str(); {} is the action. For a request that was not delivered, {0} is the
    // context of the daemon and {1}, also in the remedy, the setting with which that daemon is started.
    const char* text = nullptr;
};

constexpr Meaning kMeanings[] = {
    {SECURITY_PSS_NO_KEY, Exit::kNoSuchObject, kSpelling},
    {SECURITY_ERR_NO_VALUE, Exit::kNoSuchObject, "set it first"},
    {SECURITY_ERR_NO_CIPHER, Exit::kInvalidValue, "use one that --help lists"},
    {SECURITY_ERR_CRYPT, Exit::kFailed, "enter the secret again"},
    {SECURITY_ERR_PASSWD_UNDELIVERED, Exit::kUnreachable,
     "see that quillsecurityd runs, then set the password again",
     "the daemon did not confirm the password, which may or may not have been set"},
    {SECURITY_ERR_UNKNOWN_ROLE, Exit::kNoSuchObject, kSpelling},
    {SECURITY_ERR_ROLE_NOT_HELD, Exit::kNoSuchObject, "list the roles that the user holds"},
    {SECURITY_ERR_NOT_FOUND, Exit::kNoSuchObject, kSpelling},
    {SECURITY_ERR_END_OF_TABLE, Exit::kNoSuchObject, kSpelling},
    {SECURITY_ERR_TOO_MANY_ROLES, Exit::kFailed, "remove a role first"},
    {SECURITY_ERR_SSHKEY_CONVERT, Exit::kFailed, "give the key as one line of OpenSSH text"},
    {SECURITY_ERR_SSHKEY_FORMAT, Exit::kInvalidValue, "give the key as one line of OpenSSH text"},
    {SECURITY_ERR_FILE_OPEN, Exit::kNoSuchObject, "check that the file exists and can be read"},
    {SECURITY_ERR_SSHKEY_TYPE, Exit::kFailed, "see that ssh-keygen runs and can write /tmp/outkey.pub"},
    {SECURITY_ERR_FILE_READ, Exit::kFailed, "check that the file can be read"},
    {SECURITY_ERR_URI_TYPE, Exit::kInvalidValue, "name a file on a device of this system"},
    {SECURITY_ERR_NO_MORE_ROLES, Exit::kNoSuchObject, kSpelling},
    {SECURITY_ERR_WEAK_PASSWORD, Exit::kInvalidValue, "choose another; 'quillsec password check' checks one"},
    {SECURITY_ERR_EXPIRY_DATE, Exit::kInvalidValue, "give a day to come, 2037-12-31 at the latest"},
    {SECURITY_ERR_NO_USER, Exit::kNoSuchObject, kSpelling},
    {SECURITY_ERR_TOO_MANY_USERS, Exit::kFailed, "delete a user first"},
    {SECURITY_ERR_DATE_FORMAT, Exit::kInvalidValue, "give a day to come, 2037-12-31 at the latest"},
    {SECURITY_ERR_MISSING_ARGUMENT, Exit::kInvalidValue, "give all arguments that --help lists"},
    {SECURITY_ERR_NO_PRIV_LVL, Exit::kNoSuchObject, "'quillsec secret show' lists those that have one"},
    {SECURITY_ERR_NO_MORE_PRIV_LVLS, Exit::kNoSuchObject, "set its secret first"},
    {SECURITY_ERR_CERT_TOO_BIG, Exit::kInvalidValue, "use a smaller certificate, without its chain"},
    {SECURITY_ERR_TOO_MANY_LOCALES, Exit::kFailed, "remove a locale first"},
    {SECURITY_ERR_UNKNOWN_LOCALE, Exit::kNoSuchObject, kSpelling},
    {SECURITY_ERR_LOCALE_NOT_HELD, Exit::kNoSuchObject, "list the locales that the user holds"},
    {SECURITY_ERR_REQUEST_FRAME, Exit::kFailed, kSameVersion},
    {SECURITY_ERR_REQUEST_TYPE, Exit::kFailed, kSameVersion},
    {SECURITY_ERR_REQUEST_SIZE, Exit::kFailed, kSameVersion},
    {SECURITY_ERR_REQUEST_TEXT, Exit::kFailed, kSameVersion},
    {SECURITY_ERR_REQUEST_COUNT, Exit::kFailed, kSameVersion},
    {SECURITY_ERR_USER_NAME, Exit::kInvalidValue,
     "use a letter or '_', then letters, digits, '_', '-' and '.', at most 31 (27 outside context 1); the "
     "system's own are not changed"},
    {SECURITY_ERR_PASSWORD_TEXT, Exit::kInvalidValue,
     "leave out line breaks in a password; give a complete hash as in crypt(5), or '!' for none"},
    {SECURITY_ERR_ACCOUNT_TOOL, Exit::kFailed, kSeeLog},
    {SECURITY_ERR_ACCOUNT_REPAIR, Exit::kBusy, kSeeLog},
    {SECURITY_ERR_NOT_SUPPORTED, Exit::kInvalidValue, "use what the documentation offers"},
    {SECURITY_ERR_KEY_PAIR, Exit::kFailed, kSeeLog},
    {SECURITY_ERR_KEY_PAIR_EXISTS, Exit::kExists, "delete that one first"},
    {SECURITY_ERR_NOT_PERMITTED, Exit::kNotPermitted,
     "run as root or as a member of the administrators' group", "you are not permitted to {} it"},
    {SECURITY_ERR_WEB_CERTIFICATE, Exit::kInvalidValue, "give the certificate as PEM text"},
    {SECURITY_ERR_WEB_KEY, Exit::kInvalidValue, "give the key as PEM text without a passphrase"},
    {SECURITY_ERR_WEB_MISMATCH, Exit::kInvalidValue, "send the certificate first, then its key"},
    {SECURITY_ERR_WEB_EXPIRED, Exit::kInvalidValue, "renew the certificate"},
    {SECURITY_ERR_WEB_WEAK, Exit::kInvalidValue, "use RSA of 2048 bits or more, or EC, and SHA-256"},
    {SECURITY_ERR_WEB_INCOMPLETE, Exit::kNoSuchObject, "send the certificate, then its key"},
    {SECURITY_ERR_WEB_SETTINGS, Exit::kInvalidValue, "use two different ports of 1 to 65535"},
    {SECURITY_ERR_BUSY, Exit::kBusy, "try again"},
    {SECURITY_ERR_CHANGED, Exit::kBusy, "try again", "others keep changing the list"},
    {SECURITY_ERR_CONTEXT, Exit::kUnreachable, "start the quillsecurityd of this context"},
    {SECURITY_ERR_OTHER_HOME, Exit::kInvalidValue,
     "change it with passwd(1), chage(1) and usermod(8), or use another name"},
    {SECURITY_ERR_ACCOUNTS_IN_USE, Exit::kBusy, "try again when the other program is done"},

    {PSS_IN_USE, Exit::kBusy, "try again when the other user of the store is done"},
    {PSS_FULL, Exit::kStoreFailure, "free space where the daemon keeps its state"},
    {PSS_QUOTA, Exit::kStoreFailure, "raise the quota or free space where the daemon keeps its state"},
    {PSS_CORRUPT, Exit::kStoreFailure,
     "stop quillsecurityd, remove the store's -wal and -journal files and put a saved copy in its place"},
    {PSS_READ_ONLY, Exit::kStoreFailure, "make the device of the store writable"},

    {undelivered_status(ENOENT), Exit::kUnreachable, "start quillsecurityd{1}",
     "the daemon{0} is not running (no socket)"},
    {undelivered_status(ECONNREFUSED), Exit::kUnreachable, "start quillsecurityd{1}",
     "the daemon{0} is not running (nothing listens on its socket)"},
    {undelivered_status(EINVAL), Exit::kUnreachable, "set it to an absolute path, or unset it",
     "QUILL_RUNTIME_DIR is not an absolute path"},
    {undelivered_status(EACCES), Exit::kNotPermitted,
     "run as root or ask for access to its runtime directory",
     "the socket of the daemon{0} is not open to you"},
    {undelivered_status(ETIMEDOUT), Exit::kTimeout, "wait longer with --timeout",
     "the daemon{0} did not reply in time"},
    {undelivered_status(ECONNRESET), Exit::kUnreachable, "start quillsecurityd{1}",
     "the daemon{0} ended before it replied"},
    {undelivered_status(ESTALE), Exit::kBusy, "try again",
     "the daemon{0} was restarted between reading and changing; nothing was changed"},
    {undelivered_status(EPROTO), Exit::kFailed, kSameVersion,
     "the daemon{0} does not speak this client's protocol"},
};

constexpr const Meaning* find(uint32_t status) {
    const auto* row = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                   [=](const Meaning& m) { return m.status == status; });
    return row == std::end(kMeanings) ? nullptr : row;
}

struct Name {
    uint32_t status;
    const char* name;
};

#define STATUS_NAME(name, value, text) {value, #name},
constexpr Name kLibraryNames[] = {SECURITY_STATUS_LIST(STATUS_NAME)};
constexpr Name kStoreNames[] = {PSS_STATUS_LIST(STATUS_NAME)};
#undef STATUS_NAME

// A status of the store may share family_meaning(); each status of the library has a row.
static_assert(std::all_of(std::begin(kLibraryNames), std::end(kLibraryNames),
                          [](const Name& n) { return n.status == SECURITY_OK || find(n.status); }),
              "a status of the library has no row in kMeanings");

bool changes(std::string_view action) {
    constexpr std::string_view kReadOnly[] = {"ask", "read", "verify", "convert", "listen to", "receive"};
    return std::ranges::find(kReadOnly, action) == std::end(kReadOnly);
}

// Replaces {0} and {1} (see Meaning::text): by nothing in context 1.
std::string about_daemon(const std::string& text) {
    const int32_t context = sysmgrcmn_vdc_id_get();
    if (context == kDefaultContext) return fmt::format(fmt::runtime(text), "", "");
    return fmt::format(fmt::runtime(text), fmt::format(" of context {}", context),
                       fmt::format(" with SYSMGR_VDC_ID={}", context));
}

// Returns the meaning of a status without a row.
Meaning family_meaning(uint32_t status) {
    if (is_undelivered(status)) return {status, Exit::kUnreachable, kSeeDaemon};
    return {status, is_store_status(status) ? Exit::kStoreFailure : Exit::kFailed, kSeeLog};
}
}  // namespace

uint32_t status_of(uint32_t result) { return result == UINT32_MAX ? undelivered_status(errno) : result; }

void require_success(uint32_t status, const std::string& object, const char* action) {
    if (status == SECURITY_OK) return;
    const Meaning* row = find(status);
    const Meaning meaning = row ? *row : family_meaning(status);
    if (is_undelivered(status)) {
        const bool outcome_unknown = is_unanswered(status) && changes(action);
        const std::string reason =
            meaning.text ? meaning.text : "the daemon{0} cannot be asked: " + error_text(errno_of(status));
        std::string text = about_daemon(reason);
        if (outcome_unknown) text += "; the change may or may not have been made";
        throw Failure{meaning.exit,    about_daemon("the daemon{0}"),
                      std::move(text), about_daemon(meaning.remedy),
                      status,          outcome_unknown};
    }
    const std::string text =
        meaning.text ? fmt::format(fmt::runtime(meaning.text), action) : std::string(syserr2str(status));
    throw Failure{meaning.exit, object, fmt::format("{}: {}", object, text), meaning.remedy, status};
}

std::string status_name(uint32_t status) {
    if (is_undelivered(status)) {
        const char* name = strerrorname_np(errno_of(status));
        return name ? name : "";
    }
    for (const Name& n : kLibraryNames) {
        if (n.status == status) return n.name;
    }
    for (const Name& n : kStoreNames) {
        if (n.status == status) return n.name;
    }
    return "";
}

std::string error_text(int error) {
    const char* description = strerrordesc_np(error);
    std::string text = description ? description : fmt::format("error {}", error);
    const auto upper = [&](size_t i) { return i < text.size() && text[i] >= 'A' && text[i] <= 'Z'; };
    if (upper(0) && !upper(1)) text[0] = static_cast<char>(text[0] - 'A' + 'a');  // but not "RPC ..."
    return text;
}

}  // namespace quill::cli
