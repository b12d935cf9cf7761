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

}  // namespace fakes

#endif
