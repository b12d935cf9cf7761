#include "bench/origin/telemetry.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <string_view>

namespace {

// One executable has one MD5, on all of its lines.
uint64_t digest(const char *program) {
    return std::hash<std::string_view>{}(program);
}

}  // namespace

std::string make_telemetry(size_t size, unsigned int seed) {
    static constexpr std::array programs = {
        "/usr/sbin/sshd",      "/usr/bin/bash",       "/usr/lib/systemd/systemd",
        "/usr/bin/python3.11", "/usr/sbin/nginx",     "/usr/bin/dbus-daemon",
        "/usr/sbin/cron",      "/opt/app/bin/worker", "/usr/bin/postgres",
        "/usr/bin/node",       "/usr/sbin/rsyslogd",  "/usr/bin/containerd-shim"};
    static constexpr std::array users = {"root", "www-data", "postgres", "app", "daemon"};
    std::mt19937_64 random(seed);
    std::string text;
    text.reserve(size + 512);
    uint64_t start = 1700000000;
    while (text.size() < size) {
        const uint64_t bits = random();
        const char *program = programs[bits % programs.size()];
        start += bits % 97;
        char line[512];
        const int length = snprintf(
            line, sizeof(line),
            R"({"pid":%u,"ppid":%u,"start":%llu,"user":"%s","exe":"%s","md5":"%016llx%016llx","cmdline":"%s --id %llx --port %u"})"
            "\n",
            static_cast<unsigned int>(bits >> 16 & 0x3fffff),
            static_cast<unsigned int>(bits >> 40 & 0xffff), static_cast<unsigned long long>(start),
            users[(bits >> 8) % users.size()], program,
            static_cast<unsigned long long>(digest(program)),
            static_cast<unsigned long long>(~digest(program) * 31), program,
            static_cast<unsigned long long>(random() >> 24), static_cast<unsigned int>(bits >> 48));
        text.append(line, static_cast<size_t>(length));
    }
    text.resize(size);
    return text;
}
