/*
 * Whole ticks with something wrong below the relay: files, commands, memory.
 */
#include <cerrno>

#include "tests/unit/upgrade_test.h"

using fakes::at;
using fakes::file_call;
using fakes::log_lines;
using fakes::texts;
using fakes::what;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char sync_update[] = "x_client_engine_update";
constexpr char ioa_arrival[] = "ioa_linux_en.tgz";
constexpr char md_arrival[] = "md_linux.tgz";

class kzemm_upgrade_faults_test : public upgrade_test {
  protected:
    // Packs that lead one tick through each kind of call: a full pack that the engine refuses with
    // a capture, an obsolete one, and arrivals that replace a backup.
    void SetUp() override {
        upgrade_test::SetUp();
        drop_ioc("ioc_full_2.0");
        drop_ioc("ioc_full_1.0");
        drop_pack(ioa_arrival, "linux_kzedbd.cfg");
        drop_pack("ioa_linux_bk_1.tgz", "linux_kzedbd.cfg");
        drop_pack(md_arrival, "linux_kzemsi.ptn");
        drop_pack("md_linux_bk_1.tgz", "linux_kzemsi.ptn");
        std::filesystem::rename(in_tree("hlthreat_rule"), in_tree("packs"));
        config::ioc_switch() = true;
        config::ioa_switch() = true;
        config::md_switch() = true;
    }

    void lay_out() {
        std::filesystem::remove_all(in_tree("hlthreat_rule"));
        std::filesystem::copy(in_tree("packs"), in_tree("hlthreat_rule"));
        std::filesystem::remove(in_tree("qd_agent/bin/kzedbd.cfg"));
        relay = std::make_unique<CUpgradeRelay>();
        state::s_debug_adv_threat = true;
        state::s_md_last_result = 0;
        fakes::reset_file_faults();
        fakes::set_engine_version(ENGINE_IOC, "1.5");
        fakes::set_engine_version(ENGINE_IOA, "7");
        fakes::engine_returns(sync_update, {-3});
        forget();
    }

    void tick() {
        cl_timerplus timer = {relay.get()};
        CUpgradeRelay::timer_upgrade_callback(&timer);
    }

    // Lets the nth block fail that the next pass asks for, unless it changes a file before.
    static void fail_block_before_a_change(unsigned int nth) {
        fakes::on_file_call([](file_call kind, bool) {
            if (kind != file_call::open_directory) {
                fakes::let_allocations_work();
            }
        });
        fakes::fail_throwing_new(nth);
    }

    // What the tick told about its engines, with the level.
    static names engines_told() {
        names result;
        for (const fakes::record &each : log_lines()) {
            const bool begins = each.text == "upgrade ioc" || each.text == "upgrade ioa" ||
                                each.text.rfind("upgrade md, ", 0) == 0;
            if (begins || each.text.rfind(" rule failed !") != std::string::npos) {
                result.push_back(std::to_string(each.level) + " " + each.text);
            }
        }
        return result;
    }
    static names all_engines(bool ioc_fails, bool ioa_fails, bool md_fails) {
        names result = {"3 upgrade ioc"};
        if (ioc_fails) {
            result.emplace_back("2 update ioc rule failed !");
        }
        result.emplace_back("3 upgrade ioa");
        if (ioa_fails) {
            result.emplace_back("2 update ioa rule failed !");
        }
        result.emplace_back("3 upgrade md, last result: 0, retry times: 0");
        if (md_fails) {
            result.emplace_back("2 update md rule failed !");
        }
        return result;
    }

    // Each attempt of each engine failed, and nothing came to one of them.
    void expect_nothing_unpacked() const {
        EXPECT_EQ(engines_told(), all_engines(true, true, true));
        EXPECT_EQ(updates(), 0U);
        const auto told = log_lines();
        EXPECT_EQ(std::count_if(told.begin(), told.end(),
                                [](const fakes::record &each) {
                                    return each.text ==
                                           "retry_createprocess for unziping tgz failed!";
                                }),
                  3);
        EXPECT_THAT(told, Contains(at(2, "unzip upgrade file ioc_full_2.0 failed")));
        EXPECT_THAT(entries(), ElementsAre(StartsWith("ioa_linux_bk_"), "ioc_full_2.0.tgz",
                                           StartsWith("md_linux_bk_")));
    }
};

struct file_fault {
    file_call kind;
    const char *call;  // the beginning of its journal text
    const char *line;  // a part of the line that tells it; empty: there is none
    bool with_code;    // the line ends in the code
    bool ioa_fails;
    bool md_fails;
    bool ioc_fails;
    size_t updates;
};

}  // namespace

// ---- files ----

TEST_F(kzemm_upgrade_faults_test,
       a_file_call_that_fails_never_keeps_the_other_engines_from_running) {
    static const file_fault faults[] = {
        {file_call::remove, "delete ", ") failed:", true, false, false, true, 3},
        {file_call::rename, "rename ", "get new tgz failed", false, true, true, true, 1},
        {file_call::move, "move ", "failed to rename ", false, false, false, true, 3},
        {file_call::copy, "copy ", "file copy path ", false, false, false, true, 3},
        {file_call::make_directory, "mkdir ", "/tmp_dir/ failed!!", false, false, false, true, 3},
        {file_call::open_directory, "opendir ", "", false, false, false, false, 2},
        {file_call::run_command, "run tar ", "retry_createprocess for unziping tgz failed!", false,
         true, true, true, 0},
    };
    for (const file_fault &each : faults) {
        for (const int code : {ENOSPC, EACCES, EROFS, ENOENT}) {
            SCOPED_TRACE(std::string(each.call) + "gives " + std::to_string(code));
            lay_out();
            if (each.kind == file_call::open_directory) {
                // the engine isn't asked about an IOC pack that nobody has seen
                fakes::engine_returns(sync_update, {});
            }
            fakes::file_call_fails(each.kind, code);
            tick();
            EXPECT_EQ(engines_told(), all_engines(each.ioc_fails, each.ioa_fails, each.md_fails));
            EXPECT_EQ(updates(), each.updates);
            EXPECT_THAT(texts({what::file}), Contains(StartsWith(each.call)));
            const std::string told = each.line + (each.with_code ? std::to_string(code) : "");
            EXPECT_THAT(texts({what::log}), Contains(HasSubstr(told)));
            if (each.updates == 3) {
                EXPECT_EQ(state::s_md_last_result, -16) << "MD is in the engine's hands";
            }
        }
    }
}

TEST_F(kzemm_upgrade_faults_test, the_tick_behind_a_file_fault_does_the_work) {
    for (const file_call kind : {file_call::rename, file_call::run_command}) {
        lay_out();
        state::s_debug_adv_threat = false;
        fakes::file_call_fails(kind, ENOSPC);
        fakes::engine_always_returns(sync_update, -8);
        fakes::engine_always_returns("x_client_engine_update_async", -8);
        fakes::on_engine_call(sync_update, nullptr);
        tick();
        fakes::reset_file_faults();
        fakes::engine_always_returns(sync_update, 0);
        fakes::engine_always_returns("x_client_engine_update_async", 0);
        fakes::on_engine_call(sync_update, [](const fakes::engine_call &) {
            fakes::set_engine_version(ENGINE_IOC, "2.0");
        });
        forget();
        tick();
        EXPECT_EQ(engines_told().size(), 3U) << "an engine's pass failed";
        EXPECT_EQ(updates(), 3U);
        CUpgradeRelay::on_md_engine_update_cb(ENGINE_MD, 0, nullptr);
        EXPECT_THAT(entries(), testing::IsEmpty());
    }
}

// ---- commands ----

TEST_F(kzemm_upgrade_faults_test, a_process_that_cannot_be_made_fails_each_engine_by_itself) {
    for (const int error : {EAGAIN, ENOMEM}) {
        lay_out();
        fakes::fork_fails(error);
        tick();
        expect_nothing_unpacked();
    }
}

TEST_F(kzemm_upgrade_faults_test, a_command_that_is_not_installed_fails_each_engine_by_itself) {
    lay_out();
    const std::string path = getenv("PATH");
    setenv("PATH", in_tree("no_programs").c_str(), 1);
    tick();
    setenv("PATH", path.c_str(), 1);
    expect_nothing_unpacked();
}

// ---- memory ----

// Each block in turn that a pass asks for before it changes a file, until there is no further one.
TEST_F(kzemm_upgrade_faults_test, without_memory_the_ioc_pass_ends_before_anything_is_deleted) {
    unsigned int failed = 0;
    for (bool fails = true; fails; failed += fails ? 1 : 0) {
        SCOPED_TRACE("behind so many blocks: " + std::to_string(failed));
        lay_out();
        for (const char *const each : {"ioc_full_0.5.tgz", "ioc_x-1.7].tgz", "ioc_x-1.8].tgz",
                                       "ioc_neither.tgz", "ioc_x-0.0].tgz"}) {
            write_rule(each);
        }
        const names before = entries();
        fail_block_before_a_change(failed + 1);
        const int result = relay->upgrade_ioc_handle();
        fails = fakes::allocation_failed();
        if (!fails) {
            continue;
        }
        EXPECT_EQ(result, -1);
        EXPECT_THAT(log_lines().back(), at(1, "no memory to upgrade ioc"));
        EXPECT_EQ(entries(), before);
        EXPECT_EQ(fakes::count(what::engine), 0U);

        fakes::engine_returns(sync_update, {0});
        fakes::on_engine_call(sync_update, [](const fakes::engine_call &) {
            fakes::set_engine_version(ENGINE_IOC, "2.0");
        });
        forget();
        EXPECT_EQ(relay->upgrade_ioc_handle(), 0);
        EXPECT_EQ(updates(), 1U);
        EXPECT_THAT(entries(), ElementsAre("ioa_linux_bk_1.tgz", ioa_arrival, "ioc_neither.tgz",
                                           md_arrival, "md_linux_bk_1.tgz"));
    }
    EXPECT_GE(failed, 3U) << "the names that were found, those to delete, the packs to apply";
}

TEST_F(kzemm_upgrade_faults_test, without_memory_the_pass_of_ioa_and_md_ends_and_leaves_the_packs) {
    for (const auto type : {CUpgradeRelay::ENGINE_IOA, CUpgradeRelay::ENGINE_MD}) {
        unsigned int failed = 0;
        for (bool fails = true; fails; failed += fails ? 1 : 0) {
            SCOPED_TRACE(testing::Message() << "engine " << type << ", behind " << failed);
            lay_out();
            const names before = entries();
            fail_block_before_a_change(failed + 1);
            const int result = relay->upgrade_eng_handle(type);
            fails = fakes::allocation_failed();
            if (!fails) {
                continue;
            }
            EXPECT_EQ(result, -1);
            EXPECT_THAT(log_lines().back(),
                        at(1, "no memory to upgrade engine " + std::to_string(type)));
            EXPECT_EQ(entries(), before);
            EXPECT_EQ(fakes::count(what::engine), 0U);

            fakes::engine_returns(sync_update, {0});
            forget();
            EXPECT_EQ(relay->upgrade_eng_handle(type), 0);
            EXPECT_EQ(updates(), 1U);
            EXPECT_FALSE(has_rule(type == CUpgradeRelay::ENGINE_IOA ? ioa_arrival : md_arrival));
        }
        EXPECT_GE(failed, 1U) << "the names that were found";
    }
}
