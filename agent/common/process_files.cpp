#include "agent/common/process_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace kze {
namespace {

constexpr std::size_t stat_limit = 4096;

/* Reads "pid (name) state ppid ... start ticks ...", where the name may hold anything. */
std::optional<process_stat> parse_stat(const std::string &text) {
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return std::nullopt;
    }
    process_stat out;
    out.name = text.substr(open + 1, close - open - 1);
    std::vector<std::string> fields;
    std::string field;
    for (const char c : text.substr(close + 1)) {
        if (c != ' ' && c != '\n') {
            field.push_back(c);
        } else if (!field.empty()) {
            fields.push_back(std::move(field));
            field.clear();
        }
    }
    /* The first field behind the name is the third of all; ppid is the 4th, the start the 22nd. */
    if (fields.size() < 20) {
        return std::nullopt;
    }
    out.state = fields[0][0];
    out.ppid = std::strtoll(fields[1].c_str(), nullptr, 10);
    out.start_ticks = std::strtoull(fields[19].c_str(), nullptr, 10);
    return out;
}

}  // namespace

descriptor open_process(std::uint64_t pid) {
    const std::string path = "/proc/" + std::to_string(pid);
    return descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::optional<std::string> read_file_at(int directory, const char *name, std::size_t limit) {
    const descriptor file(::openat(directory, name, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        return std::nullopt;
    }
    std::string text(limit, '\0');
    std::size_t filled = 0;
    while (filled < limit) {
        const ssize_t got = ::read(file.get(), text.data() + filled, limit - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return std::nullopt;
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    text.resize(filled);
    return text;
}

std::optional<process_stat> read_process_stat(int process_directory) {
    const std::optional<std::string> text = read_file_at(process_directory, "stat", stat_limit);
    return text ? parse_stat(*text) : std::nullopt;
}

descriptor open_running_thread(int process_directory) {
    descriptor tasks(::openat(process_directory, "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR *)> list(
        tasks.valid() ? ::fdopendir(tasks.get()) : nullptr, ::closedir);
    if (list == nullptr) {
        return descriptor(-1);
    }
    tasks.release();
    while (const dirent *const entry = ::readdir(list.get())) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        descriptor thread(
            ::openat(::dirfd(list.get()), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const auto stat = thread.valid() ? read_process_stat(thread.get()) : std::nullopt;
        if (stat && stat->state != 'Z' && stat->state != 'X') {
            return thread;
        }
    }
    return descriptor(-1);
}

executable_path read_executable_path(int process_directory) {
    constexpr std::string_view mark = " (deleted)";
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlinkat(process_directory, "exe", target.data(), target.size());
    std::string_view path(target.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    struct stat info {};
    const bool deleted = path.size() > mark.size() &&
                         path.substr(path.size() - mark.size()) == mark &&
                         ::fstatat(process_directory, "exe", &info, 0) == 0 && info.st_nlink == 0;
    if (deleted) {
        path.remove_suffix(mark.size());
    }
    return {std::string(path), deleted};
}

descriptor open_executable(int process_directory) {
    return descriptor(
        ::openat(process_directory, "exe", O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

std::int64_t read_boot_time() {
    const std::optional<std::string> text = read_file_at(AT_FDCWD, "/proc/stat", 1U << 20);
    const std::size_t at = text ? text->find("\nbtime ") : std::string::npos;
    return at == std::string::npos ? 0 : std::strtoll(text->c_str() + at + 7, nullptr, 10);
}

}  // namespace kze
