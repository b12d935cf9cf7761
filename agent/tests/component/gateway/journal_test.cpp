/* The form of the gateway's journal. How records are kept at all is tested in component/records. */
#include "agent/gateway/journal.h"

#include <gtest/gtest.h>

#include "tests/support/temp_tree.h"

namespace {

TEST(journal, a_list_has_as_much_of_a_record_as_it_shows_of_its_type) {
    const kze_test::temp_tree tree;
    const std::string path = tree.path("var/gateway.db").string();
    const std::string data(5000, 'x');
    kze::record_writer writer(path, kze::gateway::journal_form);
    for (int type = 1; type <= 10; ++type) {
        ASSERT_TRUE(writer.append({data, 5000, type}));
    }
    std::vector<std::size_t> sizes;
    const auto found = kze::record_reader(path, kze::gateway::journal_form).list(0, 100);
    ASSERT_TRUE(found);
    for (const kze::kept_record &each : *found) {
        sizes.push_back(each.data.size());
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{20, 80, 80, 80, 20, 20, 20, 4096, 4096, 20}));
}

TEST(data_type, names_and_numbers_belong_together) {
    for (const int type : {1, 2, 3, 4, 5, 8, 9, 10}) {
        EXPECT_EQ(kze::gateway::data_type_number(kze::gateway::data_type_name(type)), type);
    }
    EXPECT_STREQ(kze::gateway::data_type_name(6), "unknown");
    EXPECT_EQ(kze::gateway::data_type_number("nothing"), 0);
}

}  // namespace
