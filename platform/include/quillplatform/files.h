/* Files that the programs of this system share. */
#ifndef QUILLPLATFORM_FILES_H
#define QUILLPLATFORM_FILES_H

/* The message-of-the-day banner as it was entered, for security_read_banner_motd_msg(). */
#define QUILL_BANNER_FILE "/etc/quillsecurity/banner"

#endif
