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
 *   GET_REQ  reads the text, terminator included; bytes behind it are unchanged. SECURITY_PSS_NO_KEY
 *   SET_REQ  deletes the stored text, then stores the new one: if storing fails, none is left
 *   DEL_REQ  deletes it; SECURITY_PSS_NO_KEY
 * Any other operation does nothing and returns 0. The enable word is not used. Other statuses of the store
 * are returned unchanged. */
uint32_t security_nginx_ssh_key_config(uint32_t handle, uint32_t operation, nginx_cert_rec* record);

/* Handler of a port; `item` is the code of its service, SECURITY_SERVICE_PLOTY_HTTP_PORT
 * or SECURITY_SERVICE_PLOTY_HTTPS_PORT.
 *   GET_REQ  reads it into *value: 0 for a port that was never set. For any other item that was never set,
 *            returns SECURITY_ERR_NO_VALUE and leaves *value unchanged.
 *   SET_REQ  stores *value; on failure *value is left big-endian
 *   DEL_REQ  deletes it; SECURITY_PSS_NO_KEY
 * Any other operation does nothing and returns 0. Other statuses of the store are returned unchanged. */
uint32_t nginx_port_info_config(uint32_t handle, int32_t operation, int32_t item, uint32_t* value);

/* The requests below are one-way: the daemon returns a status without a record. The functions return
 * that status, or the channel's negative result (0xffffffff) with errno set if the request could not
 * be delivered. */

/* Sends the file of a certificate or a key as the given item. `path` is a buffer of 256 bytes, relative
 * to the directory of location_type (enum security_location). On a device the path begins with "/"; if
 * $SYSMGR_VDC_ID is set to a number other than 1, "/vdc_N" is first inserted in front of it, in the
 * buffer, and the result cut to 255 characters. A temporary file (SECURITY_LOCATION_TEMPORARY) is
 * deleted on failure too. Returns, with nothing sent, SECURITY_ERR_URI_TYPE for another location or a
 * status of copy_nginx_file_content(). */
uint32_t security_nginx_https_send(char* path, int32_t location_type, uint32_t item, uint32_t connection);

/* Reads such a file into a record: stores the item and the NUL-terminated text; the enable word is unchanged.
 * A doubled percent sign becomes a single one, and the rest of a line after a NUL byte is dropped. Returns
 * SECURITY_ERR_CERT_TOO_BIG if, before a line is added, fewer bytes than a line buffer are free behind the
 * text: 120, more if a line is longer. Returns SECURITY_ERR_FILE_READ if the file cannot be opened or read.
 * After a failure the text is undefined and may have a part of a key. */
uint32_t copy_nginx_file_content(const char* path, nginx_cert_rec* record, uint32_t item);

/* Asks the daemon to use the stored certificate and key. The daemon of this system returns
 * SECURITY_ERR_WEB_INCOMPLETE, SECURITY_ERR_WEB_EXPIRED or SECURITY_ERR_WEB_MISMATCH if they cannot be used.
 * It checks each of them when it is sent: it refuses a text that OpenSSL cannot read, an expired
 * certificate, and a key that does not belong to the certificate sent last, and then keeps the old ones. A
 * new certificate that does not belong to the stored key is kept pending, across restarts of the daemon, and
 * stored with its key. */
uint32_t security_nginx_cert_enable(uint32_t connection);

/* Sets the switch and the ports of the web server. For the daemon of this system, `second` switches the web
 * service on (1) or off (0), `third` is its HTTP port and `fourth` its HTTPS port, 1 to 65535, or 0 for none.
 * The record, an nginx_port_rec, has them big-endian in the order third, fourth, second. The daemon returns
 * SECURITY_ERR_WEB_SETTINGS for other values and for equal ports. */
uint32_t cmi_security_nginx_configure(uint32_t connection, uint32_t second, uint32_t third, uint32_t fourth);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
