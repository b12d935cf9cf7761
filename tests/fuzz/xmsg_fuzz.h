// What is asked of the unpacking of messages for any bytes that a peer may send.
#pragma once

#include <cstddef>
#include <cstdint>

// The bytes are unpacked; a message that they make is packed, cut, made anew and read. Ends the
// program where a rule is broken. Always 0. One thread at a time.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
