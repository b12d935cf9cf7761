/*
 * The log: keeps every record in the journal, and can keep a thread in autolog_init. And the
 * number of this host, which the same library gives.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_FAKE_LOG_H
#define KZEMDLMGR_TESTS_FAKES_FAKE_LOG_H

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/fakes/journal.h"

namespace fakes {

std::vector<record> log_lines();
std::vector<record> log_lines_from(const std::string &source_file);
// The records of the message-bus objects, which write to a log of their own.
std::vector<record> bus_lines();

// Waits for a line, also one that is there already. False after the deadline.
bool await_log(int level, const std::string &text);

// Level 4 to begin with: everything is written.
void set_log_level(int level);
// Runs on the thread that called autolog_init, before that call returns.
void on_autolog_init(std::function<void()> hook);

// What vrd_get_hostid gives; 4711 to begin with.
void set_hostid(unsigned int number);

void reset_log();

// Matches a record of the log, for log_lines().
inline testing::Matcher<const record &> at(int level,
                                           const testing::Matcher<const std::string &> &text) {
    return testing::AllOf(testing::Field("level", &record::level, level),
                          testing::Field("text", &record::text, text));
}

// Matches the text of such a record, and the record: with its whole prefix, for a level of that
// log, 0 error to 3 debug.
testing::Matcher<const std::string &> bus_text(int level,
                                               const testing::Matcher<const std::string &> &text,
                                               const std::string &source_file = "kzemm_invoke.cpp");
testing::Matcher<const record &> bus_at(int level,
                                        const testing::Matcher<const std::string &> &text,
                                        const std::string &source_file = "kzemm_invoke.cpp");

}  // namespace fakes

#endif
