#include "agent/gateway/journal_writer.h"

#include "agent/common/tree.h"
#include "agent/gateway/gateway.h"
#include "agent/gateway/journal.h"

namespace kze::gateway {
namespace {

constexpr std::int64_t transaction_bytes = 8 << 20;

}  // namespace

journal_writer::journal_writer() : file_(tree_path(GATEWAY_JOURNAL_PATH), journal_form) {}

std::size_t journal_writer::write(const std::vector<record> &records, std::size_t first,
                                  count_deltas &deltas) {
    std::size_t next = first;
    const auto add_all = [&] {
        std::int64_t bytes = 0;
        next = first;
        while (next < records.size() &&
               (next == first || bytes + records[next].size <= transaction_bytes)) {
            const record &each = records[next];
            if (!file_.add(
                    {{each.data.get(), each.size}, each.size, each.type, each.accepted_us})) {
                return false;
            }
            bytes += each.size;
            ++next;
        }
        return add_counts(deltas, next - first, bytes);
    };
    if (!file_.transaction(add_all)) {
        return 0;
    }
    deltas = {};
    return next - first;
}

bool journal_writer::write_counts(count_deltas &deltas) {
    if (!file_.transaction([&] { return add_counts(deltas, 0, 0); })) {
        return false;
    }
    deltas = {};
    return true;
}

bool journal_writer::look() {
    return file_.open() && read_stored_bytes();
}

bool journal_writer::read_stored_bytes() {
    stored_bytes_ = file_
                        .number(
                            "SELECT value FROM counters WHERE name = "
                            "'" GATEWAY_COUNT_STORED_BYTES "'")
                        .value_or(0);
    return true;
}

bool journal_writer::add_count(const char *name, std::int64_t delta) {
    return delta == 0 || file_.run(
                             "INSERT INTO counters(name, value) VALUES(CAST(?1 AS TEXT), ?2)"
                             " ON CONFLICT(name) DO UPDATE SET value = value + excluded.value",
                             {name, delta});
}

bool journal_writer::add_counts(const count_deltas &deltas, std::size_t accepted,
                                std::int64_t bytes) {
    return add_count(GATEWAY_COUNT_ACCEPTED, static_cast<std::int64_t>(accepted)) &&
           add_count(GATEWAY_COUNT_REFUSED_INVALID,
                     static_cast<std::int64_t>(deltas.refused_invalid)) &&
           add_count(GATEWAY_COUNT_REFUSED_FULL, static_cast<std::int64_t>(deltas.refused_full)) &&
           add_count(GATEWAY_COUNT_LOST, static_cast<std::int64_t>(deltas.lost)) &&
           add_count(GATEWAY_COUNT_STORED_BYTES, bytes) && read_stored_bytes();
}

}  // namespace kze::gateway
