#include "tests/fakes/fake_log.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "tests/fakes/faults.h"
#include "vrdbase.h"

namespace {

constexpr int everything = 4;
constexpr unsigned int usual_hostid = 4711;

std::atomic<int> s_level{everything};
std::atomic<unsigned int> s_hostid{usual_hostid};
std::mutex s_mutex;
std::function<void()> s_autolog_hook;

__attribute__((format(printf, 1, 0))) std::string format_text(const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) + 1 : 1, '\0');
    vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    return text;
}

// What follows the prefix of a record of the message-bus objects: process, word of the level, tag,
// source and line. The whole, marked, of a text without one.
std::string behind_prefix(const std::string &whole, int level, const std::string &source_file) {
    const char *const words[] = {"[ERROR]", "[WARN]", "[INFO]", "[DEBUG]"};
    std::string process = std::to_string(getpid());
    process.resize(std::max(process.size(), size_t{5}), ' ');
    const std::string prefix =
        "[PID:" + process + "]\t" + words[level] + "\t[kzemdlmgr] [" + source_file + "(";
    if (whole.compare(0, prefix.size(), prefix) != 0) {
        return "without its prefix: " + whole;
    }
    const size_t end = whole.find_first_not_of("0123456789", prefix.size());
    if (end == prefix.size() || whole.compare(end, 3, ")] ") != 0) {
        return "without its line: " + whole;
    }
    return whole.substr(end + 3);
}

}  // namespace

namespace fakes {

std::vector<record> log_lines() {
    return journal({what::log});
}

std::vector<record> log_lines_from(const std::string &source_file) {
    std::vector<record> result;
    for (const record &each : log_lines()) {
        if (each.file == source_file) {
            result.push_back(each);
        }
    }
    return result;
}

std::vector<record> bus_lines() {
    return journal({what::bus_log});
}

testing::Matcher<const std::string &> bus_text(int level,
                                               const testing::Matcher<const std::string &> &text,
                                               const std::string &source_file) {
    return testing::ResultOf(
        [level, source_file](const std::string &whole) {
            return behind_prefix(whole, level, source_file);
        },
        text);
}

testing::Matcher<const record &> bus_at(int level,
                                        const testing::Matcher<const std::string &> &text,
                                        const std::string &source_file) {
    return testing::AllOf(
        testing::Field("kind", &record::kind, what::bus_log),
        testing::Field("level", &record::level, level),
        testing::Field("text", &record::text, bus_text(level, text, source_file)));
}

bool await_log(int level, const std::string &text) {
    return await_record([&](const record &each) {
        return each.kind == what::log && each.level == level && each.text == text;
    });
}

void set_log_level(int level) {
    s_level = level;
}

void on_autolog_init(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_autolog_hook = std::move(hook);
}

void set_hostid(unsigned int number) {
    s_hostid = number;
}

void reset_log() {
    set_log_level(everything);
    set_hostid(usual_hostid);
    on_autolog_init(nullptr);
}

}  // namespace fakes

void autolog_init(const char *directory, int files) {
    fakes::note(fakes::what::log_directory, directory, files);
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
        hook = s_autolog_hook;
    }
    if (hook) {
        hook();
    }
}

int error_output_check(int level) {
    return level <= s_level;
}

void error_output(int level, const char *source_file, int, const char *format, ...) {
    const fakes::own_memory uncounted;
    const int error = errno;
    va_list args;
    va_start(args, format);
    const std::string text = format_text(format, args);
    va_end(args);
    std::string file = source_file;
    file.erase(0, file.rfind('/') + 1);
    fakes::note(fakes::what::log, text, level, file);
    errno = error;
}

void kze_log_output(int level, const char *format, ...) {
    const fakes::own_memory uncounted;
    va_list args;
    va_start(args, format);
    const std::string text = format_text(format, args);
    va_end(args);
    fakes::note(fakes::what::bus_log, text, level);
}

unsigned int vrd_get_hostid(void) {
    return s_hostid;
}
