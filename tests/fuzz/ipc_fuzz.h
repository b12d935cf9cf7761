// What is asked of the decoding of IPC frames for any bytes that a peer may send.
#pragma once

#include <cstddef>
#include <cstdint>

// The first byte says into what pieces the others are cut; they are decoded whole, in pieces and
// byte by byte. Ends the program where a rule is broken. Always 0. One thread at a time.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
