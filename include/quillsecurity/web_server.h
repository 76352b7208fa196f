/* The web server: its ports, its certificate and its key.
 * Included by quillsecurity.h, whose conventions hold here.
 */
#ifndef QUILLSECURITY_WEB_SERVER_H
#define QUILLSECURITY_WEB_SERVER_H

#include "quillsecurity/records.h"
#include "quillsecurity/ssh_keys.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Handler of the certificate and the key, one text each: item 0 is one of the two, any other item the other.
 *   GET_REQ  fills the text up to and with its terminator; SECURITY_PSS_NO_KEY
 *   SET_REQ  deletes the item's text, then stores the new one: where storing fails, none is left
 *   DEL_REQ  deletes it; SECURITY_PSS_NO_KEY
 * Any other operation does nothing and answers 0. The enable word takes no part. Store statuses pass through.
 */
uint32_t security_nginx_ssh_key_config(uint32_t handle, uint32_t operation, nginx_cert_rec* record);

/* Handler of a port, by the code of its service (SECURITY_SERVICE_PLOTY_HTTP_PORT and ..._HTTPS_PORT).
 *   GET_REQ  fills *value, with 0 where no port was set; any other item that was never set answers
 *            SECURITY_ERR_NO_VALUE and leaves *value
 *   SET_REQ  stores *value, which a failure leaves big-endian
 *   DEL_REQ  deletes it; SECURITY_PSS_NO_KEY
 * Any other operation does nothing and answers 0. Store statuses pass through. */
uint32_t nginx_port_info_config(uint32_t handle, int32_t operation, int32_t item, uint32_t* value);

/* The requests below are one-way: the daemon answers them with a status alone. They answer that status, and
 * for one that could not be delivered the channel's negative result (0xffffffff) with errno set. */

/* Sends the file of a certificate or a key for the given item. `path` is a buffer of 256 bytes; for a
 * location on a device it starts with a slash. There, with $SYSMGR_VDC_ID set to another number than 1, the
 * file lies in the context's own directory, /vdc_NUMBER, which is put before the path in the buffer. Longer
 * paths are cut to 255 bytes. Answers SECURITY_ERR_URI_TYPE for a location that enum security_location
 * does not have, and whatever copy_nginx_file_content answers; nothing is sent then. */
uint32_t security_nginx_https_send(char* path, int32_t location_type, uint32_t item, uint32_t connection);

/* Reads such a file into a record: the item and the text, NUL-terminated; the enable word stays. A doubled
 * percent sign becomes a single one, and a NUL byte ends its line. Room for a whole line buffer is kept free
 * behind the text, 120 bytes where no line is longer: a text that grows into it is SECURITY_ERR_CERT_TOO_BIG.
 * SECURITY_ERR_FILE_READ when the file cannot be opened or read. The text of a failure is of no use, but may
 * hold a part of a key. */
uint32_t copy_nginx_file_content(const char* path, nginx_cert_rec* record, uint32_t item);

/* Asks the daemon to use the certificate and the key that it has stored. The daemon of this system answers
 * SECURITY_ERR_WEB_INCOMPLETE, ..._EXPIRED or ..._MISMATCH where they cannot be used. It has looked at each
 * when it was sent: what OpenSSL cannot read, an expired certificate and a key of another certificate than
 * the last one sent were refused, and the old ones stayed. A certificate that the stored key does not fit
 * waits for its own, also while no daemon runs, and is stored together with it. */
uint32_t security_nginx_cert_enable(uint32_t connection);

/* Sends the three words of an nginx_port_rec, big-endian: third, fourth, second. To the daemon of this system
 * `second` switches the web service on (1) or off (0), `third` is its HTTP port and `fourth` its HTTPS port,
 * from 1 to 65535, or 0 for none. It answers SECURITY_ERR_WEB_SETTINGS for other values and for one port
 * given twice. */
uint32_t cmi_security_nginx_configure(uint32_t connection, uint32_t second, uint32_t third, uint32_t fourth);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
