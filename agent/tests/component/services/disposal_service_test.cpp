/* What the disposal service does with the processes of an order. */
#include "agent/tests/component/services/disposal_service_test.h"

#include <gmock/gmock.h>

#include <thread>

namespace kze_test {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace dsp = kzerespdsppl_re;

class DisposalService : public disposal_fixture {};

TEST_F(DisposalService, process_is_only_reported_unless_the_configuration_says_otherwise) {
    const sleeper process;
    const kze_respdsp_resp answer = order({described(process.pid())});
    EXPECT_EQ(answer.agent_id(), "agent");
    EXPECT_EQ(answer.code(), dsp::DSP_ERROR_NOT_RUN);
    EXPECT_EQ(answer.msg(), "1 reported");
    EXPECT_THAT(answer.failed_tasks(), IsEmpty());
    EXPECT_EQ(newest_process()["fate"], "reported");
    EXPECT_EQ(newest()["kill"], false);
    EXPECT_TRUE(process.is_alive());
}

TEST_F(DisposalService, process_that_is_the_one_described_is_ended) {
    kill_processes();
    sleeper process;
    const auto wanted = described(process.pid());
    const kze_respdsp_resp answer = order({wanted});
    EXPECT_EQ(answer.code(), dsp::DSP_ERROR_SUCCESS) << answer.msg();
    EXPECT_THAT(answer.failed_tasks(), IsEmpty());
    const int status = process.wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    const json kept = newest();
    EXPECT_EQ(kept["done"], true);
    EXPECT_EQ(kept["kill"], true);
    EXPECT_EQ(kept["tasks"][0]["task_id"], "task");
    EXPECT_EQ(kept["tasks"][0]["alert_id"], "alert of task");
    EXPECT_EQ(newest_process(), (json{{"pid", wanted.pid()},
                                      {"create_time", wanted.create_time()},
                                      {"path", wanted.process_path()},
                                      {"md5", wanted.md5()},
                                      {"fate", "ended"},
                                      {"code", 0},
                                      {"reason", ""}}));
    EXPECT_EQ(status_of("ended"), 1);
}

TEST_F(DisposalService, process_that_differs_in_one_part_of_its_description_is_left_alone) {
    kill_processes();
    const sleeper process;
    const auto good = described(process.pid());
    for (const int part : {0, 1, 2, 3, 4}) {
        auto other = good;
        switch (part) {
            case 0:
                other.set_create_time(good.create_time() + 1);
                break;
            case 1:
                other.set_create_time(good.create_time() - 1);
                break;
            case 2:
                other.set_process_path(good.process_path() + "x");
                break;
            case 3:
                other.set_process_path("sleep");
                break;
            default:
                other.set_md5("00000000000000000000000000000000");
        }
        const kze_respdsp_resp answer = order({other});
        EXPECT_EQ(answer.code(), part == 4 ? dsp::DSP_ERROR_ENGRT_FILE_MD5
                                           : dsp::DSP_ERROR_ENGRT_PROCESS_NOT_EXIST);
        EXPECT_THAT(answer.failed_tasks(), ElementsAre("task")) << part;
        EXPECT_EQ(newest_process()["fate"], "another") << part;
        EXPECT_TRUE(process.is_alive()) << part;
    }
    EXPECT_EQ(order({good}).code(), 0) << "it was there to be ended all the time";
}

TEST_F(DisposalService, description_without_one_of_its_parts_fits_no_process) {
    kill_processes();
    const sleeper process;
    for (const int part : {0, 1, 2, 3, 4}) {
        auto partial = described(process.pid());
        switch (part) {
            case 0:
                partial.clear_create_time();
                break;
            case 1:
                partial.clear_process_path();
                break;
            case 2:
                partial.clear_md5();
                break;
            case 3:
                partial.set_pid(0);
                break;
            default:
                partial.set_pid(partial.pid() + (std::uint64_t{1} << 32));
        }
        EXPECT_EQ(order({partial}).code(), dsp::DSP_ERROR_AGENT_INVALID_PARAM) << part;
        EXPECT_EQ(newest_process()["fate"], "invalid") << part;
        EXPECT_TRUE(process.is_alive()) << part;
    }
}

TEST_F(DisposalService, process_that_has_ended_is_gone_waited_for_or_not) {
    kill_processes();
    sleeper process;
    const auto wanted = described(process.pid());
    process.signal(SIGKILL);
    ASSERT_TRUE(eventually([&] { return !process.is_alive(); }));
    EXPECT_EQ(order({wanted}).code(), dsp::DSP_ERROR_ENGRT_PROCESS_NOT_EXIST);
    EXPECT_EQ(newest_process()["fate"], "gone") << "nobody has waited for it";
    process.wait();
    EXPECT_EQ(order({wanted}).code(), dsp::DSP_ERROR_ENGRT_PROCESS_NOT_EXIST);
    EXPECT_EQ(newest_process()["fate"], "gone");
}

TEST_F(DisposalService, process_whose_first_thread_has_ended_is_ended_too) {
    kill_processes();
    sleeper process(OUTLIVED_MAIN);
    const auto wanted = described(process.pid());
    ASSERT_TRUE(eventually([&] {
        process.signal(SIGCONT);
        return !process.is_alive();
    })) << "its first thread goes on";
    auto other = wanted;
    other.set_process_path("/bin/other");
    order({other});
    EXPECT_EQ(newest_process()["fate"], "another");
    EXPECT_EQ(order({wanted}).code(), dsp::DSP_ERROR_SUCCESS);
    EXPECT_EQ(newest_process()["fate"], "ended");
    process.wait();
}

TEST_F(DisposalService, id_of_a_thread_is_no_process) {
    kill_processes();
    const loop_thread other;
    pid_t thread = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task")) {
        if (const pid_t id = std::stoi(entry.path().filename()); id != getpid()) {
            thread = id;
        }
    }
    ASSERT_NE(thread, 0);
    auto wanted = described(getpid());
    wanted.set_pid(static_cast<std::uint64_t>(thread));
    order({wanted});
    EXPECT_EQ(newest_process()["fate"], "gone");
}

TEST_F(DisposalService, first_process_the_service_and_the_agents_programs_are_refused) {
    kill_processes();
    std::filesystem::copy_file("/bin/sleep", tree.path("bin/kze_agent"));
    std::filesystem::copy_file("/bin/sleep", tree.path("bin/other"));
    const sleeper host(tree.path("bin/kze_agent").string());
    sleeper other(tree.path("bin/other").string());
    auto first = described(host.pid());
    first.set_pid(1);
    for (const auto &wanted : {first, described(process_->pid()), described(host.pid())}) {
        const kze_respdsp_resp answer = order({wanted});
        EXPECT_EQ(answer.code(), dsp::DSP_ERROR_TRUST_INTERNALPROCESS) << answer.msg();
        EXPECT_EQ(newest_process()["fate"], "refused");
        EXPECT_NE(newest_process()["reason"], "");
    }
    EXPECT_TRUE(host.is_alive());
    EXPECT_EQ(order({described(other.pid())}).code(), 0) << "what only lies there is not theirs";
}

TEST_F(DisposalService, executable_that_was_deleted_still_names_its_process) {
    kill_processes();
    std::filesystem::copy_file("/bin/sleep", tree.path("bin/other"));
    const sleeper process(tree.path("bin/other").string());
    const auto wanted = described(process.pid());
    std::filesystem::remove(tree.path("bin/other"));
    EXPECT_EQ(order({wanted}).code(), 0);
    EXPECT_EQ(newest_process()["fate"], "ended");
}

TEST_F(DisposalService, each_task_has_its_own_result_and_a_process_named_twice_is_ended_once) {
    kill_processes();
    const sleeper twice;
    const sleeper kept;
    auto wrong = described(kept.pid());
    wrong.set_create_time(wrong.create_time() + 1);
    kze_respdsp_icdt_req several;
    add_task(several, "both", {described(twice.pid()), described(twice.pid())});
    add_task(several, "wrong", {wrong});
    add_task(several, "none", {});
    add_task(several, "again", {described(twice.pid()), wrong});
    add_task(several, "other type", {described(kept.pid())});
    several.mutable_alert_info(4)->set_type(dsp::DSP_TYPE_RECOVERY);
    const kze_respdsp_resp answer = order(frame_of(several));
    EXPECT_THAT(answer.failed_tasks(), ElementsAre("wrong", "again", "other type"));
    EXPECT_EQ(answer.code(), dsp::DSP_ERROR_ENGRT_PROCESS_NOT_EXIST) << "that of the first failure";
    EXPECT_THAT(answer.msg(), HasSubstr("process " + std::to_string(kept.pid())));
    EXPECT_TRUE(kept.is_alive());
    EXPECT_FALSE(twice.is_alive());
    const json tasks = newest()["tasks"];
    EXPECT_EQ(tasks[0]["processes"][1]["fate"], "ended");
    EXPECT_EQ(tasks[3]["processes"][0]["fate"], "ended");
    EXPECT_FALSE(tasks[4]["processes"][0].contains("fate"));
}

TEST_F(DisposalService, thousand_processes_are_looked_at_well_within_the_senders_limit) {
    kill_processes();
    sleeper process;
    std::vector<kze_respdsp_res_process> all(1000, described(process.pid()));
    for (std::size_t i = 1; i < all.size(); ++i) {
        all[i].set_create_time(i);
    }
    const auto begun = std::chrono::steady_clock::now();
    order(all);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(15));
    EXPECT_EQ(status_of("ended"), 1);
    EXPECT_EQ(status_of("gone") + status_of("another"), 999);
}

TEST_F(DisposalService, what_is_no_order_is_refused_logged_and_counted) {
    kill_processes();
    const sleeper process;
    const std::string good = order_of({described(process.pid())});
    const std::string body = good.substr(kze::module_header_size);
    const auto with = [&](std::size_t at, char byte) {
        std::string bad = good;
        bad[at] = byte;
        return bad;
    };
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"", "less than a header"},
        {good.substr(0, 19), "less than a header"},
        {with(0, '4'), "the version \"3200\""},
        {with(7, '\2'), "compress_flag"},
        {with(9, '\2'), "proto_type is 2"},
        {good + "x", "msg_len"},
        {good.substr(0, good.size() - 1), "msg_len"},
        {kze::module_frame(body, module_request, kze::byte_order::little_endian),
         "proto_type is 256"},
        {kze::module_frame(body.substr(0, body.size() - 1), module_request,
                           kze::byte_order::big_endian),
         "its body is no disposal request"},
        {kze::module_frame("\x12\x03\x0A\x01\xFF", module_request, kze::byte_order::big_endian),
         "its body is no disposal request"},
        {kze::module_frame("", module_request, kze::byte_order::big_endian), "no task"},
    };
    for (const auto &[frame, reason] : bad) {
        const kze_respdsp_resp answer = order(frame);
        EXPECT_EQ(answer.code(), reason == "no task" ? dsp::DSP_ERROR_AGENT_INVALID_PARAM
                                                     : dsp::DSP_ERROR_AGENT_INVALID_DATA);
        EXPECT_THAT(answer.msg(), HasSubstr(reason));
        EXPECT_THAT(service_log(), HasSubstr("is refused: " + answer.msg()));
    }
    EXPECT_EQ(status()["malformed"], bad.size());
    EXPECT_EQ(status()["orders"], 0);
    EXPECT_TRUE(newest().is_null());
    EXPECT_TRUE(process.is_alive());
}

TEST_F(DisposalService, order_with_more_entries_than_the_bound_is_refused_and_one_at_it_taken) {
    kze_respdsp_icdt_req request;
    add_task(request, "task", std::vector<kze_respdsp_res_process>(99999));
    EXPECT_EQ(order(frame_of(request)).msg(), "process 0: there is no such process id");
    add_task(request, "one more", {});
    EXPECT_THAT(order(frame_of(request)).msg(), HasSubstr("100001 tasks and processes"));
}

TEST_F(DisposalService, setting_that_can_not_be_understood_ends_nothing) {
    const sleeper process;
    for (const char *text : {"[disposal]\nkill = perhaps\n", "[disposal]\nkill = no\n",
                             "[disposal]\nkill =\n", "[other]\nkill = yes\n"}) {
        tree.write("config/agent.ini", text);
        EXPECT_EQ(order({described(process.pid())}).code(), dsp::DSP_ERROR_NOT_RUN) << text;
        EXPECT_TRUE(process.is_alive()) << text;
    }
    EXPECT_THAT(service_log(), HasSubstr("is neither yes nor no"));
}

TEST_F(DisposalService, requests_of_other_commands_are_answered_with_nothing) {
    loop_thread loop;
    temp_endpoint sending(loop);
    const test_address service("agt_rpdsp");
    replies answers;
    answers.request(sending.get(), service.get(), disposal_command + 1, "order");
    EXPECT_EQ(answers.wait(1).at(0).body, "");
    EXPECT_THAT(service_log(), HasSubstr("unknown command 10002"));
}

TEST_F(DisposalService, orders_outlive_a_killed_service) {
    const sleeper process;
    order({described(process.pid())});
    kill_service();
    start();
    order({described(process.pid())});
    EXPECT_EQ(reader_.newest(10)->size(), 2U);
}

TEST_F(DisposalService, process_is_ended_also_while_the_journal_can_not_be_written) {
    kill_processes();
    std::filesystem::remove_all(tree.path("var/lib"));
    tree.write("var/lib", "no directory");
    const sleeper process;
    EXPECT_EQ(order({described(process.pid())}).code(), 0);
    EXPECT_FALSE(process.is_alive());
    EXPECT_EQ(status()["unkept"], 1);
    EXPECT_THAT(service_log(), HasSubstr("a disposal order is not kept"));
}

}  // namespace
}  // namespace kze_test
