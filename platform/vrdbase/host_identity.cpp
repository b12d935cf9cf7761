#include "host_identity.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "paths.h"
#include "vrdbase.h"

namespace {

constexpr size_t id_bytes = 16;

bool is_identifier(const std::string &text) {
    return text.size() == 2 * id_bytes &&
           text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

// The first line of a small file when that is an identifier of 32 hexadecimal digits, else empty.
std::string read_identifier(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return {};
    char text[2 * id_bytes + 2];
    const ssize_t length = read(fd, text, sizeof text);
    close(fd);
    if (length < 0)
        return {};
    std::string line(text, static_cast<size_t>(length));
    line.resize(std::min(line.size(), line.find('\n')));
    return is_identifier(line) ? line : std::string();
}

std::string random_identifier() {
    unsigned char bytes[id_bytes];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes))
        return {};
    std::string text;
    for (const unsigned char byte : bytes) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned int>(byte));
        text += digits;
    }
    return text;
}

// Of several processes that do this at once, the first one's identifier stays, and all read it.
void make_identifier(const std::string &path) {
    const std::string identifier = random_identifier();
    if (identifier.empty())
        return;
    kze_paths::make_directories(path.substr(0, path.rfind('/')), 0700);
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        return;
    const std::string line = identifier + "\n";
    const bool written =
        write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) && fsync(fd) == 0;
    close(fd);
    if (written && read_identifier(path).empty())
        unlink(path.c_str());
    if (written && link(temporary.c_str(), path.c_str()) != 0 && read_identifier(path).empty())
        kze_log(2, "host id can't be kept in %s", path.c_str());
    unlink(temporary.c_str());
}

std::string host_name() {
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

// FNV-1a. The prefix keeps the machine's identifier, which is confidential, from being derived
// from what is sent out by looking it up in another program's list of the same kind.
unsigned int number_of(const std::string &identifier) {
    uint32_t hash = 2166136261U;
    for (const char c : "kze host " + identifier)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    return hash == 0 ? 1 : hash;
}

}  // namespace

unsigned int host_identity(const std::string &machine_id_file, const std::string &own_file) {
    std::string identifier = read_identifier(machine_id_file);
    if (identifier.empty())
        identifier = read_identifier(own_file);
    if (identifier.empty()) {
        make_identifier(own_file);
        identifier = read_identifier(own_file);
    }
    return number_of(identifier.empty() ? host_name() : identifier);
}

unsigned int vrd_get_hostid(void) {
    try {
        static const unsigned int number =
            host_identity("/etc/machine-id", kze_paths::expand("@/../var/lib/hostid"));
        return number;
    } catch (const std::exception &) {
        return number_of(host_name());
    }
}
