#include "tests/fakes/journal.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <utility>

namespace fakes {
namespace {

std::mutex s_mutex;
std::condition_variable s_changed;
std::function<void()> s_hook;  // runs without the mutex

// Never destroyed: threads that outlive main may still write.
std::vector<record> &records() {
    static auto *const s_records = new std::vector<record>;
    return *s_records;
}

}  // namespace

void note(what kind, const std::string &text, int level, const std::string &file) {
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        records().push_back({kind, level, file, text, pthread_self()});
        hook = s_hook;
    }
    s_changed.notify_all();
    if (hook) {
        hook();
    }
}

void on_record(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_hook = std::move(hook);
}

std::vector<record> journal(std::initializer_list<what> kinds) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    std::vector<record> result;
    for (const record &each : records()) {
        if (std::find(kinds.begin(), kinds.end(), each.kind) != kinds.end()) {
            result.push_back(each);
        }
    }
    return result;
}

std::vector<std::string> texts(std::initializer_list<what> kinds) {
    std::vector<std::string> result;
    for (const record &each : journal(kinds)) {
        result.push_back(each.text);
    }
    return result;
}

size_t count(what kind) {
    return journal({kind}).size();
}

bool await_record(const std::function<bool(const record &)> &fits, int deadline_seconds) {
    std::unique_lock<std::mutex> lock(s_mutex);
    return s_changed.wait_for(lock, std::chrono::seconds(deadline_seconds), [&] {
        return std::any_of(records().begin(), records().end(), fits);
    });
}

void clear_journal() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    records().clear();
}

void PrintTo(const record &each, std::ostream *out) {
    if (each.kind == what::log || each.kind == what::bus_log) {
        *out << each.level << ' ' << each.file << ": ";
    }
    *out << '"' << each.text << '"';
}

}  // namespace fakes
