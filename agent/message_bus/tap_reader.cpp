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

/* Those above that number, by where they lie. */
std::vector<publication> read_slots(int file, std::uint64_t after) {
    std::vector<publication> found;
    for (std::uint64_t each = 1; each <= tap_form.slots; ++each) {
        if (auto whole = read_slot(file, tap_place(each), after)) {
            found.push_back(std::move(*whole));
        }
    }
    return found;
}

bool is_older(const publication &a, const publication &b) {
    return a.number < b.number;
}

}  // namespace

std::optional<std::vector<publication>> tap_reader::all_above(std::uint64_t after) {
    const descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        if (errno == ENOENT) {
            return std::vector<publication>();
        }
        problem_ = path_ + ": " + std::strerror(errno);
        return std::nullopt;
    }
    if (!is_tap(file.get())) {
        problem_ = path_ + " is no tap of the message bus";
        return std::nullopt;
    }
    /* What comes during a look may lie where it has looked already, and what follows it where it
     * looks next. All up to the newest that a first look finds are there before the second. */
    std::vector<publication> found = read_slots(file.get(), after);
    const auto newest = std::max_element(found.begin(), found.end(), is_older);
    if (newest == found.end()) {
        return found;
    }
    const std::uint64_t last = newest->number;
    found = read_slots(file.get(), after);
    found.erase(std::remove_if(found.begin(), found.end(),
                               [last](const publication &each) { return each.number > last; }),
                found.end());
    std::sort(found.begin(), found.end(), is_older);
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
