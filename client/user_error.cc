// What went wrong with the last request about users: in words for a person, and as the failing tool's number.
#include "quillsecurity.h"

char cmi_common_user_err_str[256];
int32_t cmi_common_user_return_code;
