/* A program that includes and links only what is installed. */
#include <quillplatform.h>
#include <quillsecurity.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    const security_user before = {"amy", 1, 7, "secret"};
    security_user user = before;
    security_conf_cmi_byteorder_convert(SECURITY_USER_REQUEST, &user);
    if (user.user_type != 0x01000000) return 1;
    security_conf_cmi_byteorder_convert(SECURITY_USER_REQUEST, &user);
    printf("%s, %s\n", enable_info_to_str(21), syserr2str(PSS_FULL));
    return memcmp(&before, &user, sizeof user) != 0;
}
