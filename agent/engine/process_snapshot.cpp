#include "agent/engine/process_snapshot.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <tuple>
#include <vector>

#include "agent/common/md5.h"
#include "agent/common/process_files.h"
#include "platform/common/descriptor.h"

namespace kze::engine {
namespace {

using json = nlohmann::ordered_json;

constexpr std::size_t status_limit = 4096;
constexpr std::size_t command_line_limit = 32 * 1024;

/* The real user of a process by its "status"; nothing when the line isn't there. */
std::optional<uid_t> parse_uid(const std::string &status) {
    const std::size_t at = status.find("\nUid:");
    if (at == std::string::npos) {
        return std::nullopt;
    }
    return static_cast<uid_t>(std::strtoul(status.c_str() + at + 5, nullptr, 10));
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
    const executable_path path = read_executable_path(directory);
    set_text(line, "path", path.bytes);
    if (path.deleted) {
        line["deleted"] = true;
    }
}

void set_command_line(json &line, int directory) {
    std::string bytes = read_file_at(directory, "cmdline", command_line_limit + 1).value_or("");
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
        const descriptor process(
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
    const auto stat = read_process_stat(process_directory);
    const auto status = read_file_at(process_directory, "status", status_limit);
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
    if (!read_process_stat(process_directory)) {
        return {};
    }
    return line.dump() + "\n";
}

std::string process_snapshot::md5_of_executable(int process_directory) {
    const descriptor file = open_executable(process_directory);
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
