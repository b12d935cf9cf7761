// What is asked of the engine's messages for any bytes.
#pragma once

#include <cstddef>
#include <cstdint>

// Reads the bytes as a message, as a text and as origin data; ends the program where a rule is
// broken. Always 0. Any thread.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
