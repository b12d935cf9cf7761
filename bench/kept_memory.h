/*
 * Memory as a host should keep it: freed memory stays with the process. By default the C library
 * gives back what exceeds 128 KiB, so that each delivery of origin data would have its buffers
 * faulted in anew.
 */
#ifndef KZEMDLMGR_BENCH_KEPT_MEMORY_H
#define KZEMDLMGR_BENCH_KEPT_MEMORY_H

#include <malloc.h>

// Keeps up to 32 MiB for each allocation arena. For the start of main, before other threads exist.
inline void keep_freed_memory() {
    constexpr int kept_bytes = 32 << 20;
    mallopt(M_MMAP_THRESHOLD, kept_bytes);
    mallopt(M_TRIM_THRESHOLD, kept_bytes);
}

#endif
