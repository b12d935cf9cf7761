/*
 * The memory that a program holds through operator new, all threads together.
 */
#ifndef KZEMDLMGR_BENCH_UPGRADE_HELD_MEMORY_H
#define KZEMDLMGR_BENCH_UPGRADE_HELD_MEMORY_H

#include <cstddef>

// Counts from here on.
void watch_held_memory();
// The most bytes that were held at a time beyond what was held when the watch began.
size_t most_held_memory();

#endif
