// Text and exit status of the last failed request about users.
#include "quillsecurity.h"

char cmi_common_user_err_str[256];
int32_t cmi_common_user_return_code;
