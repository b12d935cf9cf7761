// What is asked of auto disposal for any bytes that the engine may deliver as a credible event.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What becomes of an event.
enum class event_fate {
    refused,     // nothing is sent
    unmarked,    // it goes up as it came
    undisposed,  // it goes up marked, and no request can be made of it
    disposed,    // it goes up marked, and a request to the service
};

struct event_setting {
    bool web;  // the switches
    bool phishing;
    unsigned int failing_tries;
    int last_status;  // of the try after those
};

// Runs one event through auto disposal, with stand-ins for the gateway, the IPC layer and the log,
// and ends the program where anything is not as a plain reading of the event says. One thread at a
// time.
event_fate run_event(const std::string &frame, const event_setting &setting);

// The first byte is the setting: bits 0 and 1 are the switches, bit 2 says that the others are a
// message without its header, bits 3 to 5 count the failing tries, bit 6 makes the last status
// positive. An event that would give more than 100,000 processes is left out: a request grows with
// the alert nodes times the processes. Always 0. One thread at a time.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
