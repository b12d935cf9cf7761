#include "agent/engine/process_snapshot.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <tuple>
#include <vector>

#include "agent/common/md5.h"
#include "agent/engine/owned_descriptor.h"

namespace kze::engine {
namespace {

using json = nlohmann::ordered_json;

constexpr std::size_t stat_limit = 4096;
constexpr std::size_t command_line_limit = 32 * 1024;

/* The length of the well-formed UTF-8 sequence that the text begins with; 0 when there is none. */
std::size_t utf8_sequence(std::string_view text) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead < 0xC2   ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length == 0 || text.size() < length) {
        return 0;
    }
    for (std::size_t index = 1; index < length; ++index) {
        if ((byte(index) & 0xC0) != 0x80) {
            return 0;
        }
    }
    /* Overlong forms, surrogates and what lies beyond the last code point. */
    const unsigned char second = byte(1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90)) {
        return 0;
    }
    return length;
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8_sequence(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

/* Reads a file below the process's directory up to a limit; nothing when it can't be read. */
std::optional<std::string> read_file(int directory, const char *name, std::size_t limit) {
    const owned_descriptor file(::openat(directory, name, O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
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

struct process_stat {
    std::string name;
    std::int64_t ppid = 0;
    std::uint64_t start_ticks = 0;
};

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
    out.ppid = std::strtoll(fields[1].c_str(), nullptr, 10);
    out.start_ticks = std::strtoull(fields[19].c_str(), nullptr, 10);
    return out;
}

/* The real user of a process by its "status"; nothing when the line isn't there. */
std::optional<uid_t> parse_uid(const std::string &status) {
    const std::size_t at = status.find("\nUid:");
    if (at == std::string::npos) {
        return std::nullopt;
    }
    return static_cast<uid_t>(std::strtoul(status.c_str() + at + 5, nullptr, 10));
}

std::int64_t read_boot_time() {
    const std::optional<std::string> text = read_file(AT_FDCWD, "/proc/stat", 1U << 20);
    const std::size_t at = text ? text->find("\nbtime ") : std::string::npos;
    return at == std::string::npos ? 0 : std::strtoll(text->c_str() + at + 7, nullptr, 10);
}

/* Sets a member to the text of the bytes, and names it in "escaped" when they weren't UTF-8. */
void set_text(json &line, const char *member, std::string_view bytes) {
    bool escaped = false;
    line[member] = text_of_bytes(bytes, escaped);
    if (escaped) {
        line["escaped"].push_back(member);
    }
}

void set_path(json &line, int directory) {
    constexpr std::string_view mark = " (deleted)";
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlinkat(directory, "exe", target.data(), target.size());
    std::string_view path(target.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    struct stat info {};
    const bool deleted = path.size() > mark.size() &&
                         path.substr(path.size() - mark.size()) == mark &&
                         ::fstatat(directory, "exe", &info, 0) == 0 && info.st_nlink == 0;
    if (deleted) {
        path.remove_suffix(mark.size());
    }
    set_text(line, "path", path);
    if (deleted) {
        line["deleted"] = true;
    }
}

void set_command_line(json &line, int directory) {
    std::string bytes = read_file(directory, "cmdline", command_line_limit + 1).value_or("");
    const bool cut = bytes.size() > command_line_limit;
    if (cut) {
        bytes.resize(command_line_limit);
    }
    json arguments = json::array();
    bool escaped = false;
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t end = std::min(bytes.find('\0', at), bytes.size());
        arguments.push_back(text_of_bytes(std::string_view(bytes).substr(at, end - at), escaped));
        at = end + 1;
    }
    line["command_line"] = std::move(arguments);
    if (cut) {
        line["command_line_cut"] = true;
    }
    if (escaped) {
        line["escaped"].push_back("command_line");
    }
}

}  // namespace

std::string text_of_bytes(std::string_view bytes, bool &escaped) {
    if (is_utf8(bytes)) {
        return std::string(bytes);
    }
    static constexpr char digits[] = "0123456789abcdef";
    escaped = true;
    std::string text;
    while (!bytes.empty()) {
        const std::size_t length = utf8_sequence(bytes);
        if (length == 0) {
            const auto byte = static_cast<unsigned char>(bytes[0]);
            text.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 0x0F]);
        } else if (bytes[0] == '\\') {
            text.append("\\\\");
        } else {
            text.append(bytes.substr(0, length));
        }
        bytes.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return text;
}

bool process_snapshot::file_key::operator<(const file_key &other) const {
    return std::tie(device, inode, size, changed_s, changed_ns) <
           std::tie(other.device, other.inode, other.size, other.changed_s, other.changed_ns);
}

process_snapshot::process_snapshot() : ticks_per_second_(::sysconf(_SC_CLK_TCK)) {}

std::string process_snapshot::take() {
    std::string lines;
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(::opendir("/proc"), ::closedir);
    if (directory == nullptr) {
        return lines;
    }
    boot_time_ = read_boot_time();
    users_.clear();
    while (const dirent *entry = ::readdir(directory.get())) {
        char *end = nullptr;
        const std::uint64_t pid = std::strtoull(entry->d_name, &end, 10);
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0 || *end != '\0') {
            continue;
        }
        /* All files of the process are reached through this descriptor: when it ends, they fail,
         * and a process that gets its number is never mixed in. */
        const owned_descriptor process(
            ::openat(::dirfd(directory.get()), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (process.get() >= 0) {
            lines += line_of(process.get(), pid);
        }
    }
    digests_ = std::move(digests_in_use_);
    digests_in_use_.clear();
    return lines;
}

/* The line of one process; empty when it has ended. */
std::string process_snapshot::line_of(int process_directory, std::uint64_t pid) {
    const auto stat_text = read_file(process_directory, "stat", stat_limit);
    const auto status = read_file(process_directory, "status", stat_limit);
    const auto stat = stat_text ? parse_stat(*stat_text) : std::nullopt;
    const auto uid = status ? parse_uid(*status) : std::nullopt;
    if (!stat || !uid) {
        return {};
    }
    json line;
    line["pid"] = pid;
    line["ppid"] = stat->ppid;
    set_text(line, "name", stat->name);
    line["start_time"] =
        boot_time_ + static_cast<std::int64_t>(stat->start_ticks) / ticks_per_second_;
    line["start_ticks"] = stat->start_ticks;
    set_text(line, "user", user_name(*uid));
    line["uid"] = *uid;
    set_path(line, process_directory);
    line["md5"] = md5_of_executable(process_directory);
    set_command_line(line, process_directory);
    /* A process that ended while it was read would show half of itself. */
    if (!read_file(process_directory, "stat", stat_limit)) {
        return {};
    }
    return line.dump() + "\n";
}

std::string process_snapshot::md5_of_executable(int process_directory) {
    const owned_descriptor file(
        ::openat(process_directory, "exe", O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat info {};
    if (file.get() < 0 || ::fstat(file.get(), &info) != 0) {
        return {};
    }
    const file_key key{info.st_dev, info.st_ino, info.st_size, info.st_mtim.tv_sec,
                       info.st_mtim.tv_nsec};
    auto known = digests_in_use_.find(key);
    if (known == digests_in_use_.end()) {
        const auto before = digests_.find(key);
        const std::string digest =
            before != digests_.end() ? before->second : md5_of_descriptor(file.get()).value_or("");
        known = digests_in_use_.emplace(key, digest).first;
    }
    return known->second;
}

const std::string &process_snapshot::user_name(uid_t uid) {
    const auto known = users_.find(uid);
    if (known != users_.end()) {
        return known->second;
    }
    std::vector<char> buffer(16 * 1024);
    passwd entry{};
    passwd *found = nullptr;
    const int result = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    return users_.emplace(uid, result == 0 && found != nullptr ? found->pw_name : "").first->second;
}

}  // namespace kze::engine
