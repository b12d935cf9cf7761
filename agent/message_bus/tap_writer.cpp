#include "agent/message_bus/tap_writer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace kze::bus {
namespace {

constexpr mode_t file_mode = 0600;

std::int64_t now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

bool tap_writer::fail(const char *what) {
    problem_ = path_ + ": " + what + ": " + std::strerror(errno);
    return false;
}

/* Whether the path still leads to the whole file that is open. */
bool tap_writer::is_in_place() const {
    struct stat open_one {};
    struct stat found {};
    return file_.valid() && fstat(file_.get(), &open_one) == 0 &&
           stat(path_.c_str(), &found) == 0 && found.st_dev == open_one.st_dev &&
           found.st_ino == open_one.st_ino && found.st_size == tap_size;
}

std::uint64_t tap_writer::newest_number() const {
    std::uint64_t newest = 0;
    std::array<char, tap_kept_at_most> data;
    for (std::uint64_t number = 1; number <= tap_form.slots; ++number) {
        tap_slot slot = {};
        const off_t place = tap_place(number);
        if (pread(file_.get(), &slot, sizeof(slot), place) != ssize_t{sizeof(slot)} ||
            slot.number <= newest || slot.kept > data.size() ||
            pread(file_.get(), data.data(), slot.kept, place + off_t{sizeof(slot)}) !=
                ssize_t{slot.kept} ||
            tap_checksum(slot, data.data()) != slot.checksum) {
            continue;
        }
        newest = slot.number;
    }
    return newest;
}

bool tap_writer::make_file() {
    const std::string beside = path_ + ".new";
    file_.reset(open(beside.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, file_mode));
    if (!file_.valid()) {
        return fail("can't be made");
    }
    /* All of its space now, so that a full disk can't stop it later. */
    if (const int error = posix_fallocate(file_.get(), 0, tap_size); error != 0) {
        errno = error;
        return fail("has no space");
    }
    if (pwrite(file_.get(), &tap_form, sizeof(tap_form), 0) != ssize_t{sizeof(tap_form)} ||
        flock(file_.get(), LOCK_EX | LOCK_NB) != 0 ||
        std::rename(beside.c_str(), path_.c_str()) != 0) {
        return fail("can't be made");
    }
    return true;
}

bool tap_writer::open_file() {
    file_.reset(open(path_.c_str(), O_RDWR | O_CLOEXEC));
    if (!file_.valid()) {
        return errno == ENOENT ? make_file() : fail("can't be opened");
    }
    if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
        return fail("another process writes to it");
    }
    return is_tap(file_.get()) || make_file();
}

bool tap_writer::ensure_open() {
    if (is_in_place()) {
        return true;
    }
    if (!open_file()) {
        file_.reset();
        return false;
    }
    next_ = newest_number() + 1;
    return true;
}

bool tap_writer::add(std::uint32_t event_id, std::string_view data) {
    if (!ensure_open()) {
        return false;
    }
    tap_slot head = {};
    head.number = next_;
    head.published_us = now_us();
    head.size = data.size();
    head.event_id = event_id;
    head.kept = static_cast<std::uint32_t>(std::min(data.size(), tap_kept_at_most));
    head.checksum = tap_checksum(head, data.data());
    std::memcpy(slot_.data(), &head, sizeof(head));
    if (head.kept != 0) {
        std::memcpy(slot_.data() + sizeof(head), data.data(), head.kept);
    }
    const std::size_t bytes = sizeof(head) + head.kept;
    if (pwrite(file_.get(), slot_.data(), bytes, tap_place(next_)) != static_cast<ssize_t>(bytes)) {
        return fail("can't be written");
    }
    ++next_;
    return true;
}

}  // namespace kze::bus
