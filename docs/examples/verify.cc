// Verifies the secret of privilege level 15, read from standard input, in C++. Exit status 0 if it matches.
//
//   c++ verify.cc $(pkg-config --cflags --libs quillsecurity quillplatform) -o verify
#include <quillplatform.h>
#include <quillsecurity.h>
#include <string.h>

#include <cstdio>

int main() {
    char candidate[128] = "";
    if (fgets(candidate, sizeof candidate, stdin) == nullptr) return 2;
    candidate[strcspn(candidate, "\n")] = '\0';

    uint32_t matched = 0;
    const uint32_t status = security_verify_priv_level_secret(
        0, candidate, static_cast<uint32_t>(strlen(candidate)), 15, &matched);
    explicit_bzero(candidate, sizeof candidate);  // before anything else may fail
    if (matched == 1) {
        puts("it matches");
        return 0;
    }
    fprintf(stderr, "it does not match: %s\n", syserr2str(status));
    return 1;
}
