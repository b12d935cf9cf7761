#include "agent/ctl/log_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <utility>

#include "agent/common/services.h"
#include "agent/ctl/failure.h"
#include "agent/ctl/output.h"
#include "agent/ctl/processes.h"

namespace kze::ctl {
namespace {

namespace fs = std::filesystem;

/* Under var/log. Besides these each service has its own. */
struct known_log {
    const char *name;
    const char *path;
};

constexpr known_log known_logs[] = {
    {"worker", "agent/kzemdlmgr/kzemdlmgr.log"},
    {"upgrade", "agent/kzemdlmgr/upgrade/upgrade.log"},
    {"task", "agent/kzemdlmgr/task/task.log"},
    {"setdriveswitch", "agent/kzemdlmgr/setdriveswitch/setdriveswitch.log"},
    {"host", "host/host.log"},
    {"gateway", "gateway/gateway.log"},
    {"services", "vrd_services/supervisor/supervisor.log"},
    {"output", "kze_agent.out"},
};

std::string log_directory() {
    return tree_root() + "/var/log";
}

/* The logs that have a name before they have a file: by name and path. */
std::vector<std::pair<std::string, std::string>> named_logs() {
    std::vector<std::pair<std::string, std::string>> named;
    for (const known_log &known : known_logs) {
        named.emplace_back(known.name, log_directory() + "/" + known.path);
    }
    for (const agent_service &service : agent_services) {
        named.emplace_back(service.log, log_directory() + "/" + service.endpoint + "/" +
                                            service.endpoint + ".log");
    }
    return named;
}

bool is_rotated(const fs::path &file) {
    const std::string number = file.stem().extension().string();
    return number.size() > 1 && std::all_of(number.begin() + 1, number.end(), [](char c) {
               return std::isdigit(static_cast<unsigned char>(c)) != 0;
           });
}

bool is_known(const std::string &path) {
    const auto named = named_logs();
    return std::any_of(named.begin(), named.end(),
                       [&](const auto &known) { return path == known.second; });
}

/* The logs that have no name of their own: by the file's name without ".log". */
std::vector<std::pair<std::string, std::string>> other_logs() {
    std::vector<std::pair<std::string, std::string>> found;
    std::error_code ignored;
    for (const auto &entry : fs::recursive_directory_iterator(log_directory(), ignored)) {
        const fs::path &path = entry.path();
        if (path.extension() == ".log" && !is_rotated(path) && !is_known(path.string())) {
            found.emplace_back(path.stem().string(), path.string());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

/* After that many rotations "a/name.log" is "a/name.2.log". */
std::string rotated_path(const std::string &path, unsigned int rotations) {
    if (rotations == 0) {
        return path;
    }
    const std::size_t dot = path.rfind('.');
    return path.substr(0, dot) + "." + std::to_string(rotations) + path.substr(dot);
}

template <typename Number>
bool read_number(const char *&at, const char *end, Number &out) {
    const auto result = std::from_chars(at, end, out);
    at = result.ptr;
    return result.ec == std::errc{};
}

std::string next_word(std::string &rest) {
    const std::size_t end = std::min(rest.find(' '), rest.size());
    std::string word = rest.substr(0, end);
    rest.erase(0, std::min(end + 1, rest.size()));
    return word;
}

}  // namespace

std::vector<std::string> log_names() {
    std::vector<std::string> names;
    for (const auto &[name, path] : named_logs()) {
        names.push_back(name);
    }
    for (const auto &[name, path] : other_logs()) {
        names.push_back(name);
    }
    return names;
}

std::string log_path(const std::string &name) {
    for (const auto &[known, path] : named_logs()) {
        if (name == known) {
            return path;
        }
    }
    for (const auto &[other, path] : other_logs()) {
        if (name == other) {
            return path;
        }
    }
    std::string text = "no log \"" + name + "\"; there are";
    for (const std::string &known : log_names()) {
        text += " " + known;
    }
    throw failure(exit_not_there, text);
}

std::optional<log_record> parse_log_line(const std::string &line) {
    log_record record;
    std::string rest = line;
    record.time = next_word(rest);
    record.time += " " + next_word(rest);
    record.level = next_word(rest);
    record.thread = next_word(rest);
    record.source = next_word(rest);
    record.text = rest;
    static const std::array<const char *, 5> levels = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG"};
    if (std::find(levels.begin(), levels.end(), record.level) == levels.end()) {
        return std::nullopt;
    }
    return record;
}

log_mark end_of_log(const std::string &path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? log_mark{info.st_size, info.st_ino} : log_mark{};
}

std::string to_text(const log_mark &mark) {
    return std::to_string(mark.offset) +
           (mark.file == 0 ? std::string() : "@" + std::to_string(mark.file));
}

std::optional<log_mark> parse_log_mark(const std::string &text) {
    log_mark mark;
    const char *at = text.data();
    const char *const end = at + text.size();
    bool good = read_number(at, end, mark.offset) && mark.offset >= 0;
    if (good && at != end && *at == '@') {
        good = read_number(++at, end, mark.file);
    }
    return good && at == end ? std::optional<log_mark>(mark) : std::nullopt;
}

log_mark log_mark_of(const std::string &text) {
    return parse_log_mark(text).value_or(log_mark{});
}

std::string log_mark_problem(const std::string &text) {
    return parse_log_mark(text) ? "" : "\"" + printable(text) + "\" is no mark of a log";
}

log_reader::log_reader(std::string path, log_mark from) : path_(std::move(path)), from_(from) {}

bool log_reader::open_at(const std::string &path, off_t offset) {
    descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        return false;
    }
    file_ = std::move(file);
    struct stat info {};
    inode_ = ::fstat(file_.get(), &info) == 0 ? info.st_ino : 0;
    buffer_.clear();
    buffer_offset_ = offset;
    return true;
}

/* How often the file was rotated, by the name it has now; nothing when it is none of the log's. */
std::optional<unsigned int> log_reader::rotations_of(const struct stat &file) const {
    struct stat there {};
    for (unsigned int rotations = 0;; ++rotations) {
        const bool found = ::stat(rotated_path(path_, rotations).c_str(), &there) == 0;
        if (found && there.st_ino == file.st_ino && there.st_dev == file.st_dev) {
            return rotations;
        }
        /* During a rotation one name is free for a moment. */
        struct stat behind {};
        if (!found && ::stat(rotated_path(path_, rotations + 1).c_str(), &behind) != 0) {
            return std::nullopt;
        }
    }
}

bool log_reader::open_oldest() {
    unsigned int rotations = 0;
    while (::access(rotated_path(path_, rotations + 1).c_str(), F_OK) == 0) {
        ++rotations;
    }
    return open_at(rotated_path(path_, rotations), 0);
}

bool log_reader::open_first() {
    if (from_.file != 0) {
        struct stat marked {};
        for (unsigned int rotations = 0;
             ::stat(rotated_path(path_, rotations).c_str(), &marked) == 0; ++rotations) {
            if (marked.st_ino == from_.file && marked.st_size >= from_.offset) {
                return open_at(rotated_path(path_, rotations), from_.offset);
            }
        }
        return open_oldest();
    }
    if (file_size(path_) >= from_.offset) {
        return open_at(path_, from_.offset);
    }
    const std::string older = rotated_path(path_, 1);
    return file_size(older) >= from_.offset ? open_at(older, from_.offset) : open_at(path_, 0);
}

/* Reads what was written meanwhile. False when there is nothing new. */
bool log_reader::fill() {
    std::array<char, 64 * 1024> block;
    const off_t from = buffer_offset_ + static_cast<off_t>(buffer_.size());
    ssize_t got = 0;
    do {
        got = ::pread(file_.get(), block.data(), block.size(), from);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) {
        return false;
    }
    buffer_.append(block.data(), static_cast<std::size_t>(got));
    return true;
}

/* At the end of a file that isn't the one at our path any more. */
bool log_reader::go_on_with_newer_file() {
    struct stat ours {};
    if (::fstat(file_.get(), &ours) != 0) {
        return false;
    }
    const std::optional<unsigned int> rotations = rotations_of(ours);
    if (rotations == 0U || (!rotations && ::access(path_.c_str(), F_OK) != 0)) {
        return false;
    }
    /* Records may have come between our last read and the renaming. */
    return fill() || (rotations ? open_at(rotated_path(path_, *rotations - 1), 0) : open_oldest());
}

std::optional<log_line> log_reader::next() {
    if (!file_.valid() && !open_first()) {
        return std::nullopt;
    }
    for (;;) {
        const std::size_t end = buffer_.find('\n');
        if (end != std::string::npos) {
            log_line line;
            line.text = buffer_.substr(0, end);
            line.offset = buffer_offset_;
            buffer_.erase(0, end + 1);
            buffer_offset_ += static_cast<off_t>(end + 1);
            line.next = {buffer_offset_, inode_};
            return line;
        }
        if (!fill() && !go_on_with_newer_file()) {
            return std::nullopt;
        }
    }
}

off_t offset_of_last_lines(const std::string &path, unsigned int count) {
    std::vector<off_t> beginnings;
    log_reader reader(path, 0);
    while (const std::optional<log_line> line = reader.next()) {
        beginnings.push_back(line->offset);
    }
    if (count == 0) {
        return file_size(path);
    }
    return beginnings.size() <= count ? 0 : beginnings[beginnings.size() - count];
}

off_t file_size(const std::string &path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_size : 0;
}

}  // namespace kze::ctl
