// Only compiled, for a 32-bit machine: the assertions stand in the headers.
#include "link/tndm.h"

#if UINTPTR_MAX != UINT32_MAX
#error "compile this for a 32-bit machine, or the assertions are left out"
#endif
