/* All functions that libquillsecurity imports from the platform, and those that the reference platform adds
 * for programs.
 *
 * A platform library defines the functions of these headers. libquillplatform is the reference
 * implementation, for any Linux system, and is called "the reference" in these headers. A program may link
 * another platform library or define single functions itself; its definitions take precedence.
 */
#ifndef QUILLPLATFORM_H
#define QUILLPLATFORM_H

#include "quillplatform/accounts.h"
#include "quillplatform/files.h"
#include "quillplatform/mts.h"
#include "quillplatform/pss.h"
#include "quillplatform/random.h"
#include "quillplatform/shell.h"
#include "quillplatform/sysmgr.h"
#include "quillplatform/tlv.h"
#include "quillplatform/trace.h"

#endif
