// Linked into tests that do not depend on durability, so that they need not wait for the disk.
#include "tests/support/interpose.h"

INTERPOSED int fdatasync(int) { return 0; }
INTERPOSED int fsync(int) { return 0; }
