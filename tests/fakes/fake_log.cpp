#include "tests/fakes/fake_log.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

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
    va_list args;
    va_start(args, format);
    const std::string text = format_text(format, args);
    va_end(args);
    fakes::note(fakes::what::log, text, level + 1, "-");
}

unsigned int vrd_get_hostid(void) {
    return s_hostid;
}
