#pragma once

#include <cstdint>

// The handle of an open and empty store, whatever the one before held.
uint32_t fresh_store();
