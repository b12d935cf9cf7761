#include "agent/host/process_figures.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iterator>
#include <memory>

namespace kze::host {
namespace {

long entries_of(const char *path) {
    std::error_code error;
    const std::filesystem::directory_iterator entries(path, error);
    return error ? 0 : static_cast<long>(std::distance(begin(entries), end(entries)));
}

long resident_kb() {
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(
        std::fopen("/proc/self/statm", "re"), &std::fclose);
    long pages = 0;
    if (file == nullptr || std::fscanf(file.get(), "%*d %ld", &pages) != 1) {
        return 0;
    }
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace

process_figures own_figures() {
    process_figures figures;
    figures.rss_kb = resident_kb();
    figures.threads = entries_of("/proc/self/task");
    /* Without the one through which the directory is read. */
    const long descriptors = entries_of("/proc/self/fd");
    figures.descriptors = descriptors > 0 ? descriptors - 1 : 0;
    return figures;
}

}  // namespace kze::host
