/*
 * The one order of everything that a test sees: each fake writes here what it was asked for.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_JOURNAL_H
#define KZEMDLMGR_TESTS_FAKES_JOURNAL_H

#include <pthread.h>

#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <vector>

namespace fakes {

enum class what {
    log,            // a record of the log: level, source file, text
    bus_log,        // a record of the message-bus objects' own log: level, text with its prefix
    log_directory,  // autolog_init: the directory; level is the number of files
    engine,         // a call of the engine client
    gateway,        // a call of the gateway
    bus,            // a call of the message bus: "advise 1", "dispatch 18"
    config,         // a call of the central configuration
    timer,          // "start 1 1000/1000", "stop 1", "close 1": number, first and period in ms
    sleep,          // microseconds
    loop,           // "nowait 1"
    library,        // "open libqdccl.so", "close libqdccl.so"
    ipc,            // a call of the IPC layer
    thread,         // a call on a thread, a mutex or a condition of the agent: "start", "lock"
    file,           // a call on files or commands: file_faults.h
};

struct record {
    what kind;
    int level;
    std::string file;  // base name of the source, of a log record
    std::string text;
    pthread_t thread;
};

// Writes a record; any thread.
void note(what kind, const std::string &text, int level = 0, const std::string &file = {});

// Runs on the recording thread behind each record; null: nothing runs.
void on_record(std::function<void()> hook);

// All records of some kinds in order, and the texts of them.
std::vector<record> journal(std::initializer_list<what> kinds);
std::vector<std::string> texts(std::initializer_list<what> kinds);
size_t count(what kind);

// Waits until a record fits, also one that is there already. False after the deadline.
bool await_record(const std::function<bool(const record &)> &fits, int deadline_seconds = 20);

// Runs a hook once, behind the next record of this kind whose text begins so, on the thread that
// writes that record: a mark within what a test calls. Several wait beside each other.
void at_record(what kind, const std::string &beginning, std::function<void()> hook);
void forget_hooks();

// Forgets all records.
void clear_journal();

// How a record appears in the message of a failed assertion.
void PrintTo(const record &each, std::ostream *out);

}  // namespace fakes

#endif
