/* All that libquillsecurity imports from the platform, and what the reference platform adds for programs.
 *
 * A platform library defines the functions of these headers once. libquillplatform is the reference that
 * runs on any Linux box; a program may bring its own, or define single functions itself: its definitions
 * take precedence.
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
