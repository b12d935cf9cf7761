#include "agent/central_config/store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "agent/common/json_text.h"
#include "kzautil.h"
#include "platform/common/descriptor.h"

namespace kze::config {
namespace {

using nlohmann::json;

constexpr std::chrono::seconds lock_deadline{2};
constexpr std::chrono::milliseconds lock_period{10};

constexpr const char *type_names[] = {"null", "boolean", "integer", "string", "real", "structure"};

bool is_later(const struct timespec &a, const struct timespec &b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

int type_of(const json &value) {
    switch (value.type()) {
        case json::value_t::boolean:
            return VALUE_BOOLEAN;
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
            return VALUE_INTEGER;
        case json::value_t::number_float:
            return VALUE_REAL;
        case json::value_t::string:
            return VALUE_STRING;
        case json::value_t::object:
        case json::value_t::array:
            return VALUE_STRUCTURE;
        default:
            return VALUE_NULL;
    }
}

store_value value_of(const json &value) {
    const int type = type_of(value);
    return {type, type == VALUE_STRING ? value.get_ref<const std::string &>() : value.dump()};
}

/* The library prints no text that isn't UTF-8. */
bool is_utf8(const std::string &text) {
    try {
        static_cast<void>(json(text).dump());
        return true;
    } catch (const json::exception &) {
        return false;
    }
}

bool is_name(const std::string &name) {
    if (name.empty() || name.size() > name_size_bound || !is_utf8(name)) {
        return false;
    }
    for (const char c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            return false;
        }
    }
    return true;
}

/* Makes the JSON value; a problem text when the value's text doesn't fit its type. */
std::string make_json(const store_value &value, json &out) {
    if (value.text.size() > value_size_bound) {
        return "the value is longer than " + std::to_string(value_size_bound) + " bytes";
    }
    if (value.type == VALUE_STRING) {
        out = value.text;
        return is_utf8(value.text) ? std::string() : "the value is not UTF-8";
    }
    std::string problem;
    std::optional<json> parsed = parse_json(value.text, problem);
    if (!parsed) {
        return "the value: " + problem;
    }
    if (type_of(*parsed) != value.type) {
        return "the value is not of the type " + std::string(value_type_name(value.type));
    }
    out = std::move(*parsed);
    return {};
}

bool read_up_to(int file, std::size_t bound, std::string &out) {
    char block[64 * 1024];
    while (out.size() < bound) {
        const ssize_t count = read(file, block, std::min(sizeof(block), bound - out.size()));
        if (count < 0 && errno != EINTR) {
            return false;
        }
        if (count == 0) {
            return true;
        }
        out.append(block, count < 0 ? 0 : static_cast<std::size_t>(count));
    }
    return true;
}

bool write_all(int file, const std::string &text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = write(file, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        done += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return true;
}

/* A state's time is always after the one before: time, size and inode (which the file system gives
 * out again) then never repeat together. */
bool set_later(int file, const struct timespec &before) {
    struct stat made {};
    if (fstat(file, &made) != 0) {
        return false;
    }
    if (is_later(made.st_mtim, before)) {
        return true;
    }
    struct timespec times[2] = {before, before};
    times[1].tv_nsec += 1;
    if (times[1].tv_nsec == 1000000000) {
        times[1] = {before.tv_sec + 1, 0};
    }
    return futimens(file, times) == 0;
}

void sync_directory(const std::string &path) {
    const descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.valid()) {
        fsync(directory.get());
    }
}

}  // namespace

const char *store_text(int result) {
    switch (result) {
        case STORE_BAD_ARGUMENT:
            return "bad argument";
        case STORE_ABSENT:
            return "there is no configuration store yet";
        case STORE_UNREADABLE:
            return "the configuration store can't be read";
        case STORE_BROKEN:
            return "the configuration store is broken";
        case STORE_NO_MODULE:
            return "no such module in the configuration store";
        case STORE_NO_KEY:
            return "no such key in the module";
        case STORE_LOCKED:
            return "another writer holds the configuration store";
        case STORE_NOT_WRITTEN:
            return "the configuration store can't be written";
        case STORE_FULL:
            return "the configuration store is full";
        case STORE_NOT_SUPPORTED:
            return "operation not supported";
        case STORE_NO_MEMORY:
            return "no memory";
        default:
            return result >= 0 ? "success" : "unknown result";
    }
}

const char *value_type_name(int type) {
    return type >= VALUE_NULL && type <= VALUE_STRUCTURE ? type_names[type] : "unknown";
}

int value_type_number(const std::string &name) {
    for (int type = VALUE_NULL; type <= VALUE_STRUCTURE; ++type) {
        if (name == type_names[type]) {
            return type;
        }
    }
    return -1;
}

store::store(std::string directory)
    : directory_(std::move(directory)), path_(directory_ + "/store.json") {}

int store::fail(int result, const std::string &reason) {
    problem_ = reason;
    return result;
}

bool store::identity::operator==(const identity &other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

/* Makes content_ what the file holds now. */
int store::refresh() {
    struct stat info {};
    if (stat(path_.c_str(), &info) != 0) {
        loaded_ = false;
        return errno == ENOENT ? fail(STORE_ABSENT, path_ + ": " + store_text(STORE_ABSENT))
                               : fail(STORE_UNREADABLE, path_ + ": " + std::strerror(errno));
    }
    if (loaded_ && identity{info.st_dev, info.st_ino, info.st_size, info.st_mtim} == identity_) {
        return fail(loaded_result_, loaded_problem_);
    }
    content_ = json::object();
    loaded_ = false;
    return load();
}

int store::load() {
    const descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat info {};
    if (!file.valid() || fstat(file.get(), &info) != 0) {
        return fail(STORE_UNREADABLE, path_ + ": " + std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        return fail(STORE_BROKEN, path_ + " is no regular file");
    }
    std::string text;
    if (!read_up_to(file.get(), store_size_bound + 1, text)) {
        return fail(STORE_UNREADABLE, path_ + ": " + std::strerror(errno));
    }
    loaded_result_ = accept(text);
    loaded_problem_ = problem_;
    identity_ = {info.st_dev, info.st_ino, info.st_size, info.st_mtim};
    loaded_ = true;
    return loaded_result_;
}

int store::accept(const std::string &text) {
    if (text.size() > store_size_bound) {
        return fail(STORE_BROKEN,
                    path_ + " is larger than " + std::to_string(store_size_bound) + " bytes");
    }
    std::string problem;
    std::optional<json> parsed = parse_json(text, problem);
    if (!parsed) {
        return fail(STORE_BROKEN, path_ + ": " + problem);
    }
    if (!parsed->is_object()) {
        return fail(STORE_BROKEN, path_ + " holds no object of modules");
    }
    for (const auto &module : parsed->items()) {
        if (!module.value().is_object()) {
            return fail(STORE_BROKEN,
                        path_ + ": the module \"" + module.key() + "\" is no object of keys");
        }
    }
    content_ = std::move(*parsed);
    return fail(STORE_OK, {});
}

int store::find(const std::string &module, const std::string &key) {
    const auto keys = content_.find(module);
    if (keys == content_.end()) {
        return fail(STORE_NO_MODULE, path_ + ": there is no module \"" + module + "\"");
    }
    if (keys->find(key) == keys->end()) {
        return fail(STORE_NO_KEY,
                    path_ + ": the module \"" + module + "\" has no key \"" + key + "\"");
    }
    return STORE_OK;
}

int store::get(const std::string &module, const std::string &key, store_value &out) {
    int result = refresh();
    if (result == STORE_OK) {
        result = find(module, key);
    }
    if (result == STORE_OK) {
        out = value_of(content_[module][key]);
    }
    return result;
}

int store::list(std::vector<store_entry> &out) {
    const int result = refresh();
    if (result != STORE_OK && result != STORE_ABSENT) {
        return result;
    }
    std::vector<store_entry> entries;
    if (result == STORE_OK) {
        for (const auto &module : content_.items()) {
            for (const auto &value : module.value().items()) {
                entries.push_back({module.key(), value.key(), value_of(value.value())});
            }
        }
    }
    out = std::move(entries);
    return fail(STORE_OK, {});
}

int store::set(const std::string &module, const std::string &key, const store_value &value) {
    return set({{module, key, value}});
}

int store::set(const std::vector<store_entry> &entries) {
    std::vector<json> made(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (!is_name(entries[i].module) || !is_name(entries[i].key)) {
            return fail(STORE_BAD_ARGUMENT, "a module and a key are 1 to " +
                                                std::to_string(name_size_bound) +
                                                " bytes of UTF-8 without control characters");
        }
        const std::string problem = make_json(entries[i].value, made[i]);
        if (!problem.empty()) {
            return fail(STORE_BAD_ARGUMENT, problem);
        }
    }
    const descriptor lock(lock_for_writing());
    int result = lock.valid() ? refresh() : STORE_LOCKED;
    if (result == STORE_ABSENT) {
        content_ = json::object();
        result = STORE_OK;
    }
    if (result != STORE_OK) {
        return result;
    }
    json changed = content_;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        changed[entries[i].module][entries[i].key] = std::move(made[i]);
    }
    return save(changed);
}

int store::unset(const std::string &module, const std::string &key) {
    const descriptor lock(lock_for_writing());
    int result = lock.valid() ? refresh() : STORE_LOCKED;
    if (result == STORE_OK) {
        result = find(module, key);
    }
    if (result != STORE_OK) {
        return result;
    }
    json changed = content_;
    changed[module].erase(key);
    if (changed[module].empty()) {
        changed.erase(module);
    }
    return save(changed);
}

/* Writes beside the store, syncs and renames: a crash leaves the old file or the new one. */
int store::save(const json &content) {
    const std::string text = content.dump(2) + "\n";
    if (text.size() > store_size_bound) {
        return fail(STORE_FULL,
                    path_ + " would be larger than " + std::to_string(store_size_bound) + " bytes");
    }
    const std::string beside = path_ + ".new";
    if (!write_beside(beside, text) || rename(beside.c_str(), path_.c_str()) != 0) {
        const int error = errno;
        unlink(beside.c_str());
        return fail(STORE_NOT_WRITTEN, path_ + ": " + std::strerror(error));
    }
    sync_directory(directory_);
    return fail(STORE_OK, {});
}

/* errno tells why when it fails. */
bool store::write_beside(const std::string &path, const std::string &text) const {
    struct stat before {};
    const bool exists = stat(path_.c_str(), &before) == 0;
    const descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    return file.valid() && write_all(file.get(), text) &&
           (!exists || (fchmod(file.get(), before.st_mode & 07777) == 0 &&
                        set_later(file.get(), before.st_mtim))) &&
           fsync(file.get()) == 0;
}

/* Waits for its turn among the writers. The descriptor that holds the lock, or -1. */
int store::lock_for_writing() {
    const std::string path = directory_ + "/store.lock";
    kze_dirutils_mkdir(directory_.c_str(), 0700);
    descriptor lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    const auto end = std::chrono::steady_clock::now() + lock_deadline;
    while (!lock.valid() || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (!lock.valid() || (errno != EWOULDBLOCK && errno != EINTR)) {
            return fail(-1, path + ": " + std::strerror(errno));
        }
        if (std::chrono::steady_clock::now() > end) {
            return fail(-1, path_ + ": " + store_text(STORE_LOCKED));
        }
        std::this_thread::sleep_for(lock_period);
    }
    return lock.release();
}

}  // namespace kze::config
