/* A file of records of its own for each test. */
#ifndef KZE_AGENT_TESTS_COMPONENT_RECORDS_RECORD_FILE_TEST_H
#define KZE_AGENT_TESTS_COMPONENT_RECORDS_RECORD_FILE_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/common/record_file.h"
#include "tests/support/temp_tree.h"

namespace kze_test {

using kze::kept_record;
using kze::record_form;
using kze::record_reader;
using kze::record_writer;
using texts = std::vector<std::string>;
using ids = std::vector<std::int64_t>;

/* With kinds, and without bounds. */
inline constexpr record_form plain_form{
    "things", "came_us", "kind", "20", "", "holds no things of version 1", true, 100, 0, 0};

inline record_form bounded(std::int64_t records, std::int64_t bytes) {
    record_form form = plain_form;
    form.most_records = records;
    form.most_bytes = bytes;
    return form;
}

inline texts texts_of(const std::optional<std::vector<kept_record>> &found) {
    texts all;
    for (const kept_record &each : found.value()) {
        all.push_back(each.data);
    }
    return all;
}

inline ids ids_of(const std::optional<std::vector<kept_record>> &found) {
    ids all;
    for (const kept_record &each : found.value()) {
        all.push_back(each.id);
    }
    return all;
}

class record_file_test : public testing::Test {
  protected:
    texts kept() { return texts_of(reader.newest(100000)); }
    ids numbers() { return ids_of(reader.newest(100000)); }

    temp_tree tree;
    const std::string path = tree.path("var/lib/things.db").string();
    record_reader reader{path, plain_form};
};

}  // namespace kze_test

#endif
