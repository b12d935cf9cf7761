#include "tests/component/plugin/load_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "tests/support/process_state.h"

namespace {

constexpr int fields_before_text = 5;  // date, time, level, thread, source

bool is_still_there(int fd, const std::string &path) {
    struct stat opened = {};
    struct stat named = {};
    return fstat(fd, &opened) == 0 && stat(path.c_str(), &named) == 0 &&
           opened.st_ino == named.st_ino;
}

}  // namespace

load_log::load_log(const std::vector<std::string> &paths,
                   const std::vector<std::string> &beginnings) {
    for (const std::string &path : paths) {
        files.push_back({path, -1, ""});
    }
    for (const std::string &each : beginnings) {
        tallies.push_back(std::make_unique<tally>());
        tallies.back()->beginning = each;
    }
    thread = std::thread([this] { routine(); });
}

load_log::~load_log() {
    ends = true;
    thread.join();
    for (const file &each : files) {
        if (each.fd >= 0) {
            close(each.fd);
        }
    }
}

size_t load_log::count(const std::string &beginning) const {
    for (const auto &each : tallies) {
        if (each->beginning == beginning) {
            return each->lines;
        }
    }
    throw std::logic_error("not counted: " + beginning);
}

bool load_log::await(const std::string &beginning, size_t times) const {
    return kze_test::eventually([&] { return count(beginning) >= times; });
}

void load_log::routine() {
    while (!ends) {
        for (file &each : files) {
            read_on(each);
        }
        // Not a wait for anything: files can't be waited for across their rotation.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void load_log::read_on(file &of) {
    if (of.fd < 0) {
        of.fd = open(of.path.c_str(), O_RDONLY | O_CLOEXEC);
        return;
    }
    // What was renamed is complete; so it is looked at before its last lines are read.
    const bool is_newest = is_still_there(of.fd, of.path);
    char block[65536];
    for (ssize_t size = 0; (size = read(of.fd, block, sizeof(block))) > 0;) {
        of.rest.append(block, static_cast<size_t>(size));
        count_lines(of);
    }
    if (!is_newest) {
        close(of.fd);
        of.fd = -1;
    }
}

void load_log::count_lines(file &of) {
    const char *at = of.rest.data();
    const char *const end = at + of.rest.size();
    for (const char *line_end = nullptr;
         (line_end = static_cast<const char *>(memchr(at, '\n', static_cast<size_t>(end - at))));
         at = line_end + 1) {
        count_line(at, line_end);
    }
    of.rest.erase(0, static_cast<size_t>(at - of.rest.data()));
}

void load_log::count_line(const char *begin, const char *end) {
    for (int field = 0; field < fields_before_text && begin != end; ++field) {
        begin = std::find(begin, end, ' ');
        begin = std::find_if(begin, end, [](char c) { return c != ' '; });
    }
    for (const auto &each : tallies) {
        const std::string &beginning = each->beginning;
        if (static_cast<size_t>(end - begin) >= beginning.size() &&
            memcmp(begin, beginning.data(), beginning.size()) == 0) {
            ++each->lines;
        }
    }
}
