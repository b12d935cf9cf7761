/* How the host's process keeps the memory that it frees. */
#ifndef KZE_AGENT_HOST_MALLOC_POLICY_H
#define KZE_AGENT_HOST_MALLOC_POLICY_H

#include <malloc.h>

namespace kze {

/*
 * Lets freed memory stay with the process, up to 32 MiB of it for each allocation arena. By default
 * the C library gives back what exceeds 128 KiB, so that each delivery of origin data would have
 * its buffers faulted in anew, which costs more than framing it. For the start of main, before
 * other threads exist; a matter of the process, never of a library.
 */
inline void keep_freed_memory() {
    constexpr int kept_bytes = 32 << 20;
    mallopt(M_MMAP_THRESHOLD, kept_bytes);
    mallopt(M_TRIM_THRESHOLD, kept_bytes);
}

}  // namespace kze

#endif
