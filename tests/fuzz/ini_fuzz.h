// What is asked of the ini functions for any content of a file.
#pragma once

#include <cstddef>
#include <cstdint>

// Loads the bytes as a file, changes, saves and loads again; ends the program where a rule of the
// ini functions is broken. Always 0. One thread at a time.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
