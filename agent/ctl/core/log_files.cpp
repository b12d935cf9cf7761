#include "agent/ctl/core/log_files.h"

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
#include "agent/ctl/core/failure.h"
#include "agent/ctl/core/output.h"
#include "agent/ctl/core/processes.h"

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

/* Not valid where it can't be opened. */
descriptor open_log(const std::string &path, unsigned int rotations) {
    return descriptor(::open(rotated_path(path, rotations).c_str(), O_RDONLY | O_CLOEXEC));
}

/* 0 of no file. */
off_t size_of(const descriptor &file) {
    struct stat info {};
    return ::fstat(file.get(), &info) == 0 ? info.st_size : 0;
}

log_file_id id_of(const descriptor &file) {
    struct statx info {};
    if (::statx(file.get(), "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &info) != 0) {
        return {};
    }
    const bool has_time = (info.stx_mask & STATX_BTIME) != 0;
    return {info.stx_ino,
            has_time ? info.stx_btime.tv_sec * 1'000'000'000 + info.stx_btime.tv_nsec : 0};
}

/* Shows the log's files, the newest first, with how often each was rotated, until `take` says that
 * it has what it looks for; whether it did. A rotation gives files the next higher number, so none
 * is missed, and leaves one name free for a moment. */
template <typename Take>
bool any_file(const std::string &path, const Take &take) {
    bool was_free = false;
    for (unsigned int rotations = 0;; ++rotations) {
        descriptor file = open_log(path, rotations);
        const bool is_free = !file.valid();
        if (is_free && was_free) {
            return false;
        }
        if (!is_free && take(rotations, file)) {
            return true;
        }
        was_free = is_free;
    }
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
    log_mark end;
    any_file(path, [&end](unsigned int, const descriptor &file) {
        end = {size_of(file), id_of(file)};
        return true;
    });
    return end;
}

std::string to_text(const log_mark &mark) {
    std::string text = std::to_string(mark.offset);
    if (mark.file.known()) {
        text += "@" + std::to_string(mark.file.inode) + "." + std::to_string(mark.file.made_ns);
    }
    return text;
}

std::optional<log_mark> parse_log_mark(const std::string &text) {
    log_mark mark;
    const char *at = text.data();
    const char *const end = at + text.size();
    bool good = read_number(at, end, mark.offset) && mark.offset >= 0;
    if (good && at != end && *at == '@') {
        good = read_number(++at, end, mark.file.inode) && at != end && *at == '.' &&
               read_number(++at, end, mark.file.made_ns);
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

bool log_reader::go_to(descriptor file, off_t offset) {
    if (!file.valid()) {
        return false;
    }
    id_ = id_of(file);
    file_ = std::move(file);
    buffer_.clear();
    buffer_offset_ = offset;
    return true;
}

/* How often our file was rotated, by the name it has now; nothing when it is none of the log's. */
std::optional<unsigned int> log_reader::rotations() const {
    std::optional<unsigned int> ours;
    any_file(path_, [&](unsigned int rotations, const descriptor &file) {
        if (id_of(file) == id_) {
            ours = rotations;
        }
        return ours.has_value();
    });
    return ours;
}

bool log_reader::open_oldest() {
    descriptor oldest;
    any_file(path_, [&oldest](unsigned int, descriptor &file) {
        oldest = std::move(file);
        return false;
    });
    return go_to(std::move(oldest), 0);
}

bool log_reader::open_marked() {
    return any_file(path_, [this](unsigned int, descriptor &file) {
        return id_of(file) == from_.file && size_of(file) >= from_.offset &&
               go_to(std::move(file), from_.offset);
    });
}

bool log_reader::open_first() {
    if (from_.file.known()) {
        return open_marked() || open_oldest();
    }
    descriptor current = open_log(path_, 0);
    if (size_of(current) >= from_.offset) {
        return go_to(std::move(current), from_.offset);
    }
    descriptor older = open_log(path_, 1);
    return size_of(older) >= from_.offset ? go_to(std::move(older), from_.offset)
                                          : go_to(std::move(current), 0);
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
    const std::optional<unsigned int> now = rotations();
    if (now == 0U || (!now && ::access(path_.c_str(), F_OK) != 0)) {
        return false;
    }
    /* Records may have come between our last read and the renaming. */
    if (fill()) {
        return true;
    }
    if (!now) {
        return open_oldest();
    }
    descriptor newer = open_log(path_, *now - 1);
    /* After another rotation meanwhile that name is another file's: looked for anew. */
    return rotations() != now || go_to(std::move(newer), 0);
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
            line.next = {buffer_offset_, id_};
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
