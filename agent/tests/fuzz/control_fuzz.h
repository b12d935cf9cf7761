// What is asked of control requests and of their answers for any bytes that a peer may send.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What came of a request. The texts are those of the answers.
struct control_answers {
    bool read;             // it was an object
    std::string service;   // the configuration service's
    std::string settings;  // that of the engine's settings
};

// Hands the text to a handler, to the configuration service and to the engine's settings as a
// request, and to a caller as an answer, with stand-ins for the IPC layer and the log. Every first
// answer is refused as too long where that is wanted, and one-way messages are. Ends the program
// where a rule is broken. One thread at a time.
control_answers run_request(const std::string &text, bool answers_too_long, bool messages_refused);

// The first byte is the setting: bit 0 makes the first answers too long, bit 1 refuses one-way
// messages. Always 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
