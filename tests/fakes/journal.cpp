#include "tests/fakes/journal.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <iterator>
#include <mutex>
#include <ostream>
#include <utility>

#include "tests/fakes/faults.h"

namespace fakes {
namespace {

std::mutex s_mutex;
std::condition_variable s_changed;
std::function<void()> s_hook;  // runs without the mutex
unsigned int s_clearings = 0;

// Never destroyed: threads that outlive main may still write.
std::vector<record> &records() {
    static auto *const s_records = new std::vector<record>;
    return *s_records;
}

struct mark {
    what kind;
    std::string beginning;
    std::function<void()> hook;
};

std::vector<mark> &marks() {
    static auto *const s_marks = new std::vector<mark>;
    return *s_marks;
}

// Takes out the marks that a record fits.
std::vector<mark> take_marks(what kind, const std::string &text) {
    const auto waits = [&](const mark &each) {
        return each.kind != kind || text.compare(0, each.beginning.size(), each.beginning) != 0;
    };
    const auto fitting = std::stable_partition(marks().begin(), marks().end(), waits);
    std::vector<mark> taken(std::make_move_iterator(fitting),
                            std::make_move_iterator(marks().end()));
    marks().erase(fitting, marks().end());
    return taken;
}

}  // namespace

void note(what kind, const std::string &text, int level, const std::string &file) {
    const own_memory uncounted;
    std::vector<mark> reached;
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        records().push_back({kind, level, file, text, pthread_self()});
        reached = take_marks(kind, text);
        hook = s_hook;
    }
    s_changed.notify_all();
    for (const mark &each : reached) {
        each.hook();
    }
    if (hook) {
        hook();
    }
}

void on_record(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_hook = std::move(hook);
}

void at_record(what kind, const std::string &beginning, std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    marks().push_back({kind, beginning, std::move(hook)});
}

void forget_hooks() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    marks().clear();
    s_hook = nullptr;
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
    size_t looked_at = 0;  // each record is looked at once: there may be thousands a second
    unsigned int clearing = s_clearings;
    return s_changed.wait_for(lock, std::chrono::seconds(deadline_seconds), [&] {
        if (clearing != s_clearings) {
            clearing = s_clearings;
            looked_at = 0;
        }
        const auto begin = records().begin() + static_cast<std::ptrdiff_t>(looked_at);
        looked_at = records().size();
        return std::any_of(begin, records().end(), fits);
    });
}

void clear_journal() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    records().clear();
    ++s_clearings;
}

void PrintTo(const record &each, std::ostream *out) {
    if (each.kind == what::log || each.kind == what::bus_log) {
        *out << each.level << ' ' << each.file << ": ";
    }
    *out << '"' << each.text << '"';
}

}  // namespace fakes
