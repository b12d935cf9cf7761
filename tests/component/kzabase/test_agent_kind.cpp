// Whether this agent is of the CNAPP kind.
#include "kzabase.h"
#include "tests/component/vrdbase/temporary_tree.h"

namespace {

class AgentKind : public TemporaryTree {
  protected:
    bool is_cnapp(const std::string &settings) const {
        write_content(path("config/agent.ini"), settings);
        return IsCNAPPAgent() != 0;
    }
};

}  // namespace

TEST_F(AgentKind, is_cnapp_in_whatever_case_it_is_written) {
    EXPECT_TRUE(is_cnapp("[agent]\nkind = cnapp\n"));
    EXPECT_TRUE(is_cnapp("; which\n[agent]\nplugins=a,b\nkind=CNAPP\n"));
    EXPECT_TRUE(is_cnapp("[agent]\r\nkind=CnApp\r\n"));
}

TEST_F(AgentKind, is_another_for_any_other_setting) {
    for (const char *settings :
         {"", "[agent]\n", "[agent]\nkind=\n", "[agent]\nkind=host\n", "[agent]\nkind=cnapp2\n",
          "[agent]\nkind=cna\n", "[other]\nkind=cnapp\n", "kind=cnapp\n", "[agent]\n;kind=cnapp\n"})
        EXPECT_FALSE(is_cnapp(settings)) << settings;
}

TEST_F(AgentKind, is_another_without_settings) {
    EXPECT_EQ(IsCNAPPAgent(), 0);
    std::filesystem::create_directory(path("config/agent.ini"));
    EXPECT_EQ(IsCNAPPAgent(), 0);
}

TEST_F(AgentKind, follows_a_change_of_the_settings_at_once) {
    EXPECT_TRUE(is_cnapp("[agent]\nkind=cnapp\n"));
    EXPECT_FALSE(is_cnapp("[agent]\nkind=hostx\n"));
    EXPECT_TRUE(is_cnapp("[agent]\nkind=cnapp\n"));
}
