// The kept inputs of the fuzzing of credible events, each as it is and cut off at every byte, and
// thousands of events that are none.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "credible_fuzz.h"
#include "tests/support/wire_bytes.h"

namespace {

constexpr event_setting both_on = {true, true, 0, 0};
constexpr size_t greatest_payload = 0xA00000;

std::string action_on(uint64_t nodes) {
    std::string action = wire::bytes(1, "alert");
    for (uint64_t node = 1; node <= nodes; ++node) {
        action += wire::number(2, node) +
                  wire::bytes(4, wire::number(1, node) + wire::number(2, 1000 + node) +
                                     wire::bytes(4, "/usr/bin/p") + wire::bytes(5, "md5") +
                                     wire::number(13, 1700000000000));
    }
    return action;
}

// An event with three actions and fields that nobody knows.
std::string good_payload(int scene) {
    std::string rule = wire::bytes(1, "rule") + wire::number(6, static_cast<uint64_t>(scene));
    for (const uint64_t nodes : {uint64_t{1}, uint64_t{0}, uint64_t{20}}) {
        rule += wire::bytes(9, action_on(nodes));
    }
    return wire::bytes(1, "agent") + wire::number(5, 9) + wire::bytes(99, "unknown") +
           wire::bytes(17, wire::bytes(6, rule) + wire::number(10, 1));
}

std::string random_bytes(std::mt19937_64 &random, size_t size) {
    std::string bytes(size, '\0');
    for (char &each : bytes) {
        each = static_cast<char>(random() & 0xFF);
    }
    return bytes;
}

// ---- ways to break an event; the result is a frame ----

std::string cut(std::mt19937_64 &random) {
    const std::string frame = wire::frame(good_payload(1));
    return frame.substr(0, random() % frame.size());
}

std::string cut_with_its_length_put_right(std::mt19937_64 &random) {
    const std::string payload = good_payload(1);
    return wire::frame(payload.substr(0, random() % payload.size()));
}

std::string flipped_in_the_header(std::mt19937_64 &random) {
    std::string frame = wire::frame(good_payload(2));
    constexpr size_t checked[] = {0, 1, 2, 3, 8, 9, 16, 17, 18, 19};
    char &byte = frame[checked[random() % std::size(checked)]];
    byte = static_cast<char>(byte ^ 1 << random() % 8);
    return frame;
}

std::string flipped_in_the_message(std::mt19937_64 &random) {
    std::string payload = good_payload(1);
    for (uint64_t left = 1 + random() % 8; left != 0; --left) {
        char &byte = payload[random() % payload.size()];
        byte = static_cast<char>(byte ^ 1 << random() % 8);
    }
    return wire::frame(payload);
}

std::string random_message(std::mt19937_64 &random) {
    return wire::frame(random_bytes(random, random() % 400));
}

std::string random_frame(std::mt19937_64 &random) {
    return random_bytes(random, random() % 400);
}

std::string nested_too_deep(std::mt19937_64 &random) {
    std::string payload = good_payload(1);
    const uint64_t depth = 101 + random() % 2000;
    const auto field = static_cast<uint32_t>(100 + random() % 100);
    for (uint64_t i = 0; i < depth; ++i) {
        payload += wire::varint(uint64_t{field} << 3 | 3);
    }
    for (uint64_t i = 0; i < depth; ++i) {
        payload += wire::varint(uint64_t{field} << 3 | 4);
    }
    return wire::frame(payload);
}

std::string claiming_more_than_there_is(std::mt19937_64 &random) {
    constexpr uint64_t claims[] = {
        0x7FFFFFFF,         0x80000000,         0xFFFFFFFF,           0x100000000,
        0x7FFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF, greatest_payload + 1, 1000000};
    constexpr uint32_t fields[] = {1, 8, 13, 17, 99};
    const std::string claim = wire::varint(fields[random() % std::size(fields)] << 3 | 2) +
                              wire::varint(claims[random() % std::size(claims)]);
    const std::string rest = random_bytes(random, random() % 40);
    if (random() % 2 == 0) {
        return wire::frame(good_payload(1) + claim + rest);
    }
    // The same within the rule and within the action.
    const std::string action = action_on(2) + claim + rest;
    const std::string rule = wire::number(6, 1) + wire::bytes(9, action);
    return wire::frame(wire::number(5, 9) + wire::bytes(17, wire::bytes(6, rule)));
}

std::string with_an_endless_number(std::mt19937_64 &random) {
    return wire::frame(good_payload(1) + wire::varint(2 << 3) +
                       std::string(11 + random() % 100, '\xFF'));
}

using breaker = std::function<std::string(std::mt19937_64 &)>;

const std::map<std::string, breaker> breakers = {
    {"cut", cut},
    {"cut_with_its_length_put_right", cut_with_its_length_put_right},
    {"flipped_in_the_header", flipped_in_the_header},
    {"flipped_in_the_message", flipped_in_the_message},
    {"random_message", random_message},
    {"random_frame", random_frame},
    {"nested_too_deep", nested_too_deep},
    {"claiming_more_than_there_is", claiming_more_than_there_is},
    {"with_an_endless_number", with_an_endless_number},
};

}  // namespace

TEST(credible_corpus, breaks_no_rule_whole_or_cut_off_anywhere) {
    int inputs = 0;
    for (const auto &entry : std::filesystem::directory_iterator(CREDIBLE_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        for (size_t size = 0; size <= bytes.size(); ++size) {
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), size);
        }
        ++inputs;
    }
    EXPECT_GE(inputs, 20);
}

TEST(credible_events, are_handled_when_they_are_whole) {
    EXPECT_EQ(run_event(wire::frame(good_payload(1)), both_on), event_fate::disposed);
    EXPECT_EQ(run_event(wire::frame(good_payload(2)), both_on), event_fate::disposed);
    EXPECT_EQ(run_event(wire::frame(good_payload(3)), both_on), event_fate::unmarked);
    EXPECT_EQ(run_event(wire::frame(good_payload(1)), {false, true, 0, 0}), event_fate::unmarked);
    const std::string no_action =
        wire::number(5, 9) + wire::bytes(17, wire::bytes(6, wire::number(6, 1)));
    EXPECT_EQ(run_event(wire::frame(no_action), both_on), event_fate::undisposed);
    for (unsigned int failing = 0; failing <= 4; ++failing) {
        for (const int status : {0, 1}) {
            EXPECT_EQ(run_event(wire::frame(good_payload(1)), {true, true, failing, status}),
                      event_fate::disposed);
        }
    }
}

// A break now and then leaves an event, with another number in it for instance; what becomes of it
// is checked all the same, and it isn't counted.
TEST(credible_events, are_refused_with_the_defined_line_when_they_are_broken) {
    constexpr int events_of_each_kind = 1200;
    std::mt19937_64 random(20250607);
    int refused = 0;
    for (const auto &[name, break_event] : breakers) {
        SCOPED_TRACE(name);
        int of_this_kind = 0;
        int tries = 0;
        for (; of_this_kind < events_of_each_kind && tries < 20 * events_of_each_kind; ++tries) {
            const std::string frame = break_event(random);
            of_this_kind += run_event(frame, both_on) == event_fate::refused;
        }
        EXPECT_EQ(of_this_kind, events_of_each_kind);
        if (name != "flipped_in_the_message") {
            EXPECT_EQ(tries, events_of_each_kind) << "all of this kind are broken";
        }
        refused += of_this_kind;
    }
    EXPECT_GE(refused, 10000);
}

TEST(credible_events, are_refused_with_10_MB_of_nonsense) {
    std::mt19937_64 random(10);
    const std::string groups(greatest_payload, '\x0B');
    const std::string payloads[] = {
        std::string(greatest_payload, '\0'),
        std::string(greatest_payload, '\xFF'),
        groups,
        good_payload(1) + groups.substr(good_payload(1).size()),
        random_bytes(random, greatest_payload),
        // Ten million fields of two bytes each, and no command among them.
        [] {
            std::string fields;
            while (fields.size() + 2 <= greatest_payload) {
                fields += "\x50\x01";
            }
            return fields;
        }(),
    };
    for (const std::string &payload : payloads) {
        EXPECT_EQ(run_event(wire::frame(payload), both_on), event_fate::refused);
    }
    const std::string text(greatest_payload - good_payload(1).size() - 5, 'x');
    const std::string greatest = good_payload(1) + wire::bytes(14, text);
    ASSERT_EQ(greatest.size(), greatest_payload);
    const std::string frame = wire::frame(greatest);
    EXPECT_EQ(run_event(frame.substr(0, frame.size() - 1), both_on), event_fate::refused);
    EXPECT_EQ(run_event(wire::frame(greatest.substr(0, greatest.size() - 1)), both_on),
              event_fate::refused);
    EXPECT_EQ(run_event(wire::frame(greatest + "x"), both_on), event_fate::refused)
        << "one byte too long";
}

TEST(credible_events, are_handled_up_to_10_MB) {
    const std::string text(greatest_payload - good_payload(1).size() - 5, 'x');
    const std::string greatest = good_payload(1) + wire::bytes(14, text);
    EXPECT_EQ(run_event(wire::frame(greatest), both_on), event_fate::disposed);
    // An event of many processes, none of them named.
    std::string action = wire::number(2, 9999999);
    while (action.size() < greatest_payload - 100) {
        action += wire::bytes(4, wire::number(1, action.size()));
    }
    const std::string processes =
        wire::number(5, 9) +
        wire::bytes(17, wire::bytes(6, wire::number(6, 1) + wire::bytes(9, action)));
    EXPECT_EQ(run_event(wire::frame(processes), both_on), event_fate::disposed);
}
