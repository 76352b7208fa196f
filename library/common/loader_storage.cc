// Variables that the library exports for the programs that load it. It does not use them itself.
#include "quillsecurity.h"

char ssh_xinet_file_path[100], ssh_xinet_enable_file_path[100], ssh_xinet_disable_file_path[100];
char telnet_xinet_file_path[100], telnet_xinet_enable_file_path[100], telnet_xinet_disable_file_path[100];
char xinet_pid_file_path[100], ssh_config_file_path[100], ssh_config_dir_path[100];
char ssh_rsa_key_path[100], ssh_rsa_pubkey_path[100], ssh_dsa_key_path[100], ssh_dsa_pubkey_path[100];
char ssh_rsa1_key_path[100], ssh_rsa1_pubkey_path[100];
char ssh_rsa_userkey_path[100], ssh_rsa_userpubkey_path[100], ssh_rsa_userkey_tmp_path[100];
char ssh_dsa_userkey_path[100], ssh_dsa_userpubkey_path[100], ssh_dsa_userkey_tmp_path[100];
char banner_file_path[100], telnet_banner_file_path[100], console_banner_file_path[100];
char password_file_path[100], shadow_file_path[100];
char kvt_cert_store_path_persistent[256], kvt_cert_store_path_runtime[256], security_user_name[256];
char lc_array[640];
