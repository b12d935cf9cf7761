#include "platform/vrdbase/host_identity.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <exception>

#include "platform/common/descriptor.h"
#include "platform/common/paths.h"
#include "platform/common/small_file.h"
#include "vrdbase.h"

namespace {

constexpr size_t id_digits = 32;
constexpr size_t max_file_size = 4096;

// The first line of a file when that is an identifier of 32 hexadecimal digits, else empty.
std::string read_identifier(const std::string &path) {
    std::string line;
    if (path.empty() || !kze_small_file::read(path, max_file_size, line)) {
        return {};
    }
    line.resize(std::min(line.size(), line.find('\n')));
    const bool good = line.size() == id_digits &&
                      line.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    return good ? line : std::string();
}

std::string random_identifier() {
    unsigned char bytes[id_digits / 2];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        return {};
    }
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4U];
        text += digits[byte & 0x0FU];
    }
    return text;
}

bool write_identifier(int fd, const std::string &identifier) {
    const std::string line = identifier + "\n";
    return !identifier.empty() && ftruncate(fd, 0) == 0 &&
           write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
           fsync(fd) == 0;
}

// The identifier kept in `path`, made if it isn't there; empty when it can't be kept. The lock
// lets several processes that start at once agree.
std::string own_identifier(const std::string &path) {
    std::string identifier = read_identifier(path);
    if (path.empty() || !identifier.empty()) {
        return identifier;
    }
    kze_paths::make_directories(path.substr(0, path.rfind('/')), 0700);
    const kze::descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (!file.valid() || flock(file.get(), LOCK_EX) != 0) {
        return {};
    }
    identifier = read_identifier(path);
    if (!identifier.empty()) {
        return identifier;
    }
    identifier = random_identifier();
    return write_identifier(file.get(), identifier) ? identifier : std::string();
}

std::string host_name() {
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

// FNV-1a, with a prefix so that the number isn't the one another program derives in the same way.
unsigned int number_of(const std::string &identifier) {
    uint32_t hash = 2166136261U;
    for (const char c : "kze host " + identifier) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    }
    return hash == 0 ? 1 : hash;
}

}  // namespace

unsigned int host_identity(const std::string &machine_id_file, const std::string &own_file) {
    std::string identifier = read_identifier(machine_id_file);
    if (identifier.empty()) {
        identifier = own_identifier(own_file);
    }
    if (identifier.empty()) {
        kze_log(2, "no identifier of this host in %s, and none can be kept in %s",
                machine_id_file.c_str(), own_file.c_str());
        identifier = host_name();
    }
    return number_of(identifier);
}

unsigned int vrd_get_hostid(void) {
    try {
        static const unsigned int number =
            host_identity("/etc/machine-id", kze_paths::expand("@/../var/lib/hostid"));
        return number;
    } catch (const std::exception &) {
        // No memory just now; the next call tries again.
        return 1;
    }
}
