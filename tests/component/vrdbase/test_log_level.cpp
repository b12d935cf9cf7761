// Which levels are written, and where that is set.
#include "log_test.h"
#include "run_program.h"

namespace {

class LogLevel : public TemporaryTree {
  protected:
    void configure(const std::string &text) { write_content(path("config/log.ini"), text); }

    int configured(const std::string &text) {
        configure(text);
        error_output_reload_level();
        return error_output_level();
    }
};

}  // namespace

TEST_F(LogLevel, writes_every_level_up_to_the_current_one) {
    for (int current = 0; current <= 4; ++current) {
        ASSERT_EQ(error_output_set_level(current), 0);
        EXPECT_EQ(error_output_level(), current);
        for (int level = -1; level <= 5; ++level)
            EXPECT_EQ(error_output_check(level) != 0, level <= current)
                << level << " at " << current;
    }
}

TEST_F(LogLevel, outside_the_range_is_refused_and_changes_nothing) {
    ASSERT_EQ(error_output_set_level(2), 0);
    EXPECT_EQ(error_output_set_level(5), -1);
    EXPECT_EQ(error_output_set_level(-1), -1);
    EXPECT_EQ(error_output_level(), 2);
}

TEST_F(LogLevel, is_read_from_the_configuration_again_on_demand) {
    EXPECT_EQ(configured("; levels 0 to 4\n[log]\nlevel = 4\n"), 4);
    EXPECT_EQ(configured("[log]\r\nlevel=0\r\n"), 0);
}

TEST_F(LogLevel, without_a_valid_setting_is_the_default) {
    for (const char *text :
         {"", "[log]\n", "[other]\nlevel=1\n", "[log]\nlevel=5\n", "[log]\nlevel=-1\n",
          "[log]\nlevel=2x\n", "[log]\nlevel=\n", "[log]\nlevel=11\n"}) {
        error_output_set_level(1);
        EXPECT_EQ(configured(text), 3) << text;
    }
}

TEST_F(LogLevel, without_a_readable_configuration_is_the_default) {
    error_output_set_level(1);
    error_output_reload_level();
    EXPECT_EQ(error_output_level(), 3);

    std::filesystem::create_directory(path("config/log.ini"));
    error_output_set_level(1);
    error_output_reload_level();
    EXPECT_EQ(error_output_level(), 3);
}

TEST_F(LogLevel, of_a_new_process_is_the_configured_one) {
    configure("[log]\nlevel=1\n");
    const ProgramRun run = run_program(LOG_PROGRAM, "level");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "1\n");
}

TEST_F(LogLevel, change_on_one_thread_is_seen_by_another) {
    error_output_set_level(1);
    std::thread([] { error_output_set_level(4); }).join();
    EXPECT_NE(error_output_check(4), 0);
}
