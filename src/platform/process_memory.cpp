#include "platform/process_memory.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace fwforge::platform {

void KeepFreedMemory() {
#if defined(__GLIBC__)
    mallopt(M_MMAP_THRESHOLD, 32 << 20);  // the largest that the allocator accepts
    mallopt(M_TRIM_THRESHOLD, 64 << 20);
#endif
}

}  // namespace fwforge::platform
