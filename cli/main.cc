// quillsec: shows and changes the security configuration by asking the daemon.
//
// Here is what the process itself needs; the command line begins in program.cc.
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <span>

#include "cli/program.h"
#include "quillplatform/shell.h"

namespace {

// A descriptor that the caller closed would be given to the daemon's socket, and the output be sent there.
// Its place is taken by one that fails when it is used, so that the failure is seen.
void occupy_standard_descriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0)
            open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}
}  // namespace

int main(int argc, char** argv) {
    // Secrets pass through this process: no core file keeps them, and no other process of this user looks on.
    prctl(PR_SET_DUMPABLE, 0);
    // Writing to a closed pipe is then an error like any other, and reported as one.
    signal(SIGPIPE, SIG_IGN);
    occupy_standard_descriptors();

    // For the daemon's log alone, beside the user id that it finds out by itself; so the environment's word
    // is good enough and no user database is searched.
    security_cmi_username = getenv("LOGNAME");
    security_cmi_session_id = static_cast<uint32_t>(getpid());

    const std::span<const char* const> line(argv, static_cast<size_t>(argc));
    return quill::cli::run(line.empty() ? line : line.subspan(1));
}
