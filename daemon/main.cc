// quillsecurityd: owns the security configuration and serves it to the clients of this machine.
#include <fcntl.h>
#include <getopt.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>

#include "base/context_name.h"
#include "base/descriptor.h"
#include "base/file.h"
#include "daemon/account_files.h"
#include "daemon/accounts.h"
#include "daemon/activation.h"
#include "daemon/announce.h"
#include "daemon/dispatch.h"
#include "daemon/homes.h"
#include "daemon/self_test.h"
#include "platform/mts/broadcast.h"
#include "platform/service.h"
#include "quillplatform.h"
#include "quillsecurity.h"

namespace quill {
namespace {

constexpr char kStore[] = "security";
constexpr char kAdministrators[] = "quilladmin";
constexpr std::chrono::milliseconds kHomeTimeAtStart{1000};

struct Options {
    bool foreground = false;
    const char* administrators = nullptr;  // the group that was given, or null
};

constexpr char kUsage[] =
    "usage: quillsecurityd [--foreground] [--admin-group GROUP]\n"
    "Serves the security configuration to the clients of this machine.\n"
    "  --foreground         stay in the foreground and log to standard error as well\n"
    "  --admin-group GROUP  members may change the configuration, as root may (default: quilladmin, in\n"
    "                       context N quilladmin-vdcN)\n"
    "  --version            print the version\n"
    "SIGTERM stops it; SIGUSR1 writes its trace history to quillsecurityd.traces in the runtime directory.\n"
    "From the environment come the absolute paths QUILL_STATE_DIR (/var/lib/quillsecurity), "
    "QUILL_RUNTIME_DIR\n"
    "(/run/quillsecurity) and QUILL_PLATFORM_CONF (/etc/quillsecurity/platform.conf), QUILL_TRACE\n"
    "(history; off, debug), and SYSMGR_VDC_ID, the virtual device context that it serves (platform.conf, "
    "else 1).\n"
    "In context N, other than 1, it uses the folder vdc_N in each of the two directories.\n";

// Parses the command line. Exits if it is wrong, or asks for the version or the usage.
Options parse(int count, char** arguments) {
    const option known[] = {{"foreground", no_argument, nullptr, 'f'},
                            {"admin-group", required_argument, nullptr, 'g'},
                            {"version", no_argument, nullptr, 'v'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
    Options options;
    for (int found; (found = getopt_long(count, arguments, "", known, nullptr)) != -1;) {
        switch (found) {
        case 'f':
            options.foreground = true;
            break;
        case 'g':
            options.administrators = optarg;
            break;
        case 'v':
            puts("quillsecurityd " QUILL_VERSION);
            exit(0);
        case 'h':
            fputs(kUsage, stdout);
            exit(0);
        default:
            fputs(kUsage, stderr);
            exit(2);
        }
    }
    if (optind < count) {
        fprintf(stderr, "quillsecurityd: argument '%s' is not known; see --help\n", arguments[optind]);
        exit(2);
    }
    return options;
}

// Returns the administrators' group, or 0 (root alone) if there is none of its name. The administrators of
// context 1 can create an account, and with it a private group, of any name: such a group does not make its
// user an administrator of another context.
gid_t administrators_of(int32_t context, const char* given) {
    std::string name = kAdministrators;
    if (context != kDefaultContext) name += "-vdc" + std::to_string(context);
    const AccountNames account = find_account(name.c_str());
    const bool private_group =
        given == nullptr && context != kDefaultContext && (!account.known || account.passwd);
    if (given != nullptr) name = given;
    const group* found = private_group ? nullptr : getgrnam(name.c_str());
    if (found != nullptr) return found->gr_gid;
    syslog(LOG_NOTICE, "there is no group %s%s; only root may change the configuration", name.c_str(),
           private_group ? " but that of an account" : "");
    return 0;
}

// Opens descriptors 0 to 2 if they are closed: else a file that is opened later could get such a number, and
// messages would be written into it.
void open_standard_files() {
    int opened;
    do {
        opened = open("/dev/null", O_RDWR);
    } while (opened >= 0 && opened <= STDERR_FILENO);
    if (opened >= 0) close(opened);
}

// The memory contains secrets: no core files, and nobody but root may read it.
void protect_memory() {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    prctl(PR_SET_DUMPABLE, 0);
}

void allow_many_clients() {
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) != 0) return;
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
}

// Lets a write fail with an error, instead of ending the daemon, when the reader of its messages has ended
// (SIGPIPE) or a file would exceed its limit (SIGXFSZ). The signals are caught and not ignored, since
// programs that the daemon runs would inherit ignored ones.
void survive_failed_writes() {
    for (const int number : {SIGPIPE, SIGXFSZ}) signal(number, [](int) {});
}

bool open_store(uint32_t& store) {
    uint32_t status = security_pss_create(&store, kStore, 0, 0);
    if (status != SECURITY_OK) {
        syslog(LOG_ERR, "the store cannot be opened: %s (%#x)", syserr2str(status), status);
        return false;
    }
    if (set_pss_version(store) != 0) {
        syslog(LOG_ERR, "the store cannot be stamped with its version; see the line before");
        return false;
    }
    status = security_conf_default_check(store);
    // Serve nevertheless: the missing defaults are stored at the next start.
    if (status != SECURITY_OK)
        syslog(LOG_ERR, "not all defaults are stored: %s (%#x)", syserr2str(status), status);
    pss2_checkpoint();
    return true;
}

// The history contains secrets, so the file is created for root only.
void dump_traces() {
    const std::string path = runtime_directory() + "/quillsecurityd.traces";
    const Descriptor file(replace_file(path.c_str(), 0600));
    if (!file || quill_trace_dump(file.get()) != 0)
        syslog(LOG_ERR, "traces cannot be written to %s: %m", path.c_str());
    else
        syslog(LOG_NOTICE, "traces written to %s", path.c_str());
}

// The daemon leaves the folder in which it was started, so relative paths are refused.
bool paths_are_absolute() {
    bool absolute = true;
    for (const char* name : {"QUILL_STATE_DIR", "QUILL_RUNTIME_DIR", "QUILL_PLATFORM_CONF"}) {
        const char* path = getenv(name);
        if (path == nullptr || *path == '\0' || *path == '/') continue;
        syslog(LOG_ERR, "%s is %s; give an absolute path", name, path);
        absolute = false;
    }
    return absolute;
}

// Returns the context that this daemon serves, or 0 for an invalid $SYSMGR_VDC_ID: the platform ignores such
// a value, and would use another context.
int32_t find_context() {
    const char* text = getenv("SYSMGR_VDC_ID");
    const int32_t context = sysmgrcmn_vdc_id_get();
    if (context < kDefaultContext) throw std::bad_alloc();  // while reading the configuration
    if (text == nullptr || *text == '\0' || std::to_string(context) == text) return context;
    syslog(LOG_ERR, "SYSMGR_VDC_ID is '%s'; give a number of 1 to %d, or none", log_safe(text).c_str(),
           SYSMGRCMN_VDC_ID_MAX);
    return 0;
}

int serve(const Options& options, Background& background) {
    if (!paths_are_absolute()) return 1;
    const int32_t context = find_context();
    if (context == 0) return 1;
    std::string reason;
    if (!take_runtime_directory(reason)) {
        syslog(LOG_ERR, "%s", reason.c_str());
        return 1;
    }
    uint32_t store = 0;
    if (!open_store(store)) return 1;

    repair_accounts(store);  // after a failure, tried again before the next change
    remove_old_homes(kHomeTimeAtStart);

    const gid_t administrators = administrators_of(context, options.administrators);
    Server server(
        {.administrators = administrators,
         .handle = [store](const Peer& peer, ConnectionState& state,
                           Request& request) { return dispatch(routes(), store, peer, state, request); },
         .checkpoint =
             [store] {
                 activate_changes(store);
                 const bool homes_left = remove_old_homes(std::chrono::milliseconds(0));
                 return pss2_checkpoint() == PSS_OK && !homes_left;
             },
         .dump = dump_traces,
         .context = static_cast<uint32_t>(context)});
    if (!server.listen()) {
        syslog(LOG_ERR, "cannot listen for requests: %m");
        return 1;
    }
    Broadcast broadcast(server.loop(), administrators, static_cast<uint32_t>(context));
    if (!broadcast.listen()) {
        syslog(LOG_ERR, "cannot listen for subscribers to announcements: %m");
        return 1;
    }
    announce_on(broadcast.handle());
    serve_self_tests(broadcast);
    self_test_at_start(store);
    notify_manager("READY=1");
    syslog(LOG_INFO, "ready, in context %d", context);
    background.ready();
    activate_all(store);  // after ready(): messages of hooks go to the log, not to the terminal
    const bool served = server.run();
    notify_manager("STOPPING=1");
    const uint32_t status = pss2_close(store);
    if (status != PSS_OK)
        syslog(LOG_ERR, "the store was not closed cleanly: %s (%#x)", syserr2str(status), status);
    syslog(LOG_INFO, "stopped");
    return served ? 0 : 1;
}

}  // namespace
}  // namespace quill

int main(int count, char** arguments) {
    using namespace quill;
    Server::hold_signals();
    open_standard_files();
    survive_failed_writes();
    const Options options = parse(count, arguments);
    Background background;
    if (!options.foreground && !background.enter()) {
        perror("quillsecurityd: cannot go into the background");
        return 1;
    }
    // Until it is ready, a daemon that goes into the background writes its messages to the terminal as well.
    openlog("quillsecurityd", log_options(), LOG_DAEMON);
    atexit(closelog);  // sends the lines that are still queued
    protect_memory();
    allow_many_clients();
    if (chdir("/") != 0) perror("quillsecurityd: /");
    try {
        return serve(options, background);
    } catch (const std::exception& failure) {
        syslog(LOG_CRIT, "%s", failure.what());
        return 1;
    }
}
