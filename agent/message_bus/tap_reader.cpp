#include "agent/message_bus/tap_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent/common/descriptor.h"
#include "agent/message_bus/tap.h"

namespace kze::bus {
namespace {

/* The publication in a slot; empty when it is not whole, or not above that number. */
std::optional<publication> read_slot(int file, off_t place, std::uint64_t after) {
    tap_slot slot = {};
    if (pread(file, &slot, sizeof(slot), place) != ssize_t{sizeof(slot)} || slot.number <= after ||
        slot.kept > tap_kept_at_most || tap_place(slot.number) != place) {
        return std::nullopt;
    }
    std::string data(slot.kept, '\0');
    if (pread(file, data.data(), data.size(), place + off_t{sizeof(slot)}) !=
            static_cast<ssize_t>(data.size()) ||
        tap_checksum(slot, data.data()) != slot.checksum) {
        return std::nullopt;
    }
    return publication{slot.number, slot.published_us, slot.size, slot.event_id, std::move(data)};
}

}  // namespace

std::optional<std::vector<publication>> tap_reader::all_above(std::uint64_t after) {
    std::vector<publication> found;
    const descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        if (errno == ENOENT) {
            return found;
        }
        problem_ = path_ + ": " + std::strerror(errno);
        return std::nullopt;
    }
    if (!is_tap(file.get())) {
        problem_ = path_ + " is no tap of the message bus";
        return std::nullopt;
    }
    for (std::uint64_t each = 1; each <= tap_form.slots; ++each) {
        if (auto whole = read_slot(file.get(), tap_place(each), after)) {
            found.push_back(std::move(*whole));
        }
    }
    std::sort(found.begin(), found.end(),
              [](const publication &a, const publication &b) { return a.number < b.number; });
    return found;
}

std::optional<std::vector<publication>> tap_reader::list(std::uint64_t after, std::size_t limit) {
    auto found = all_above(after);
    if (found && found->size() > limit) {
        found->resize(limit);
    }
    return found;
}

std::optional<std::vector<publication>> tap_reader::newest(std::size_t limit) {
    auto found = all_above(0);
    if (found && found->size() > limit) {
        found->erase(found->begin(), found->end() - static_cast<std::ptrdiff_t>(limit));
    }
    return found;
}

std::optional<std::uint64_t> tap_reader::newest_number() {
    const auto found = newest(1);
    if (!found) {
        return std::nullopt;
    }
    return found->empty() ? 0 : found->back().number;
}

}  // namespace kze::bus
