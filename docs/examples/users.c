/* Lists the users of this context and switches telnet off: a configuration client in C.
 *
 *   cc users.c $(pkg-config --cflags --libs quillsecurity quillplatform) -o users */
#include <errno.h>
#include <quillplatform.h>
#include <quillsecurity.h>
#include <stdio.h>
#include <string.h>

/* The status of a request that was not delivered has all bits set, and errno says why. */
static int fail(const char* what, uint32_t status) {
    fprintf(stderr, "%s: %s\n", what, status == UINT32_MAX ? strerror(errno) : syserr2str(status));
    return 1;
}

int main(void) {
    common_user_record user = {0};
    uint32_t off = 0, status;

    /* Each call replaces the record by that of the next name. */
    while ((status = cmi_common_user_config(0, GETNEXT_REQ, &user)) == SECURITY_OK) {
        printf("%.128s", user.name);
        if (user.expiry_year != 0)
            printf(", expires %04d-%02d-%02d", user.expiry_year, user.expiry_month, user.expiry_day);
        puts(user.ssh_key[0] != '\0' ? ", with an SSH key" : "");
    }
    if (status != SECURITY_ERR_END_OF_TABLE) return fail("users", status);

    status = cmi_enable_info_config(0, SET_REQ, SECURITY_SERVICE_TELNET, &off);
    return status == SECURITY_OK ? 0 : fail("telnet", status);
}
