/* Files that the programs of this system share. */
#ifndef QUILLPLATFORM_FILES_H
#define QUILLPLATFORM_FILES_H

/* The message-of-the-day banner of context 1 as it was entered, to be read with
 * security_read_banner_motd_msg(). security_get_system_filename() returns the name of another context's file
 * for this name. */
#define QUILL_BANNER_FILE "/etc/quillsecurity/banner"

#endif
