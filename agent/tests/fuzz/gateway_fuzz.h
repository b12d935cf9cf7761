// What is asked of the reading of the gateway's records for any bytes that it may have been handed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

// Decodes the bytes as a frame, frames them anew, and shows them as a record of that gateway type,
// in a list, whole and as JSON. Ends the program where a rule is broken. Returns the record as JSON
// tells it. One thread at a time.
nlohmann::json read_record(int type, const std::string &bytes);

// The first byte is the setting: its lower four bits are the type, the next two say whether the
// others are the record (0), or the content of a frame that is plain in host order (1), plain in
// network order (2) or compressed (3). Always 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// The record of such an input, which isn't empty.
std::string record_bytes(const uint8_t *data, size_t size);
