/* Text that looks like the engine's origin data: JSON lines about processes. */
#ifndef KZEMDLMGR_BENCH_TELEMETRY_H
#define KZEMDLMGR_BENCH_TELEMETRY_H

#include <cstddef>
#include <string>

// size bytes of lines, always the same for the same seed.
std::string make_telemetry(size_t size, unsigned int seed);

#endif
