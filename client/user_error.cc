// What went wrong with the last request about users, in words for a person.
#include "quillsecurity.h"

char cmi_common_user_err_str[256];
