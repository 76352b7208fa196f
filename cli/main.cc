// quillsec: shows and changes the security configuration through requests to the daemon. This file sets up
// the process; program.cc reads the command line.
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <span>

#include "cli/program.h"
#include "quillplatform/shell.h"

namespace {

// If the caller closed a standard descriptor, the daemon's socket would get its number, and output would go
// there. Opens /dev/null in its place, in the mode in which every use of it fails.
void occupy_standard_descriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0)
            open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}
}  // namespace

int main(int argc, char** argv) {
    // This process handles secrets: no core file, and no ptrace by other processes of this user.
    prctl(PR_SET_DUMPABLE, 0);
    // Writing to a closed pipe then fails with EPIPE, which is reported.
    signal(SIGPIPE, SIG_IGN);
    occupy_standard_descriptors();

    // This name is only for the daemon's log, which also has the user id that the kernel reports. So it is
    // taken from the environment, and no user database is searched.
    security_cmi_username = getenv("LOGNAME");
    security_cmi_session_id = static_cast<uint32_t>(getpid());

    const std::span<const char* const> line(argv, static_cast<size_t>(argc));
    return quill::cli::run(line.empty() ? line : line.subspan(1));
}
