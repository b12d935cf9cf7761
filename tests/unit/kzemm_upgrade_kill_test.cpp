/*
 * The relay's process killed at each point of a pass, with real packs and real files: the next
 * start finishes the work.
 */
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

#include "plugin/kzemm_fileoperate.h"
#include "tests/unit/upgrade_test.h"

using testing::AllOf;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr int passes_to_finish = 3;

std::string whole_file(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// An engine whose memory is files, so that it outlives the relay's process. It takes each file and
// its version rises with the call, or some queries later.
class lasting_engine {
  public:
    lasting_engine(std::string directory, int queries_until_it_rises)
        : at(std::move(directory)), delay(queries_until_it_rises) {}

    void forget() const {
        std::filesystem::remove_all(at);
        std::filesystem::create_directory(at);
        put("ioc", "4.5");
        put("ioa", "1");
    }
    // What was handed over: "1 5.0", the client's number and the file's content, a line for each.
    std::vector<std::string> taken(char engine) const {
        std::vector<std::string> result;
        std::ifstream log(at + "/taken");
        for (std::string line; std::getline(log, line);) {
            if (line[0] == engine) {
                result.push_back(line.substr(2));
            }
        }
        return result;
    }
    std::string get(const std::string &name) const { return whole_file(at + "/" + name); }

    // Runs in the relay's process. The function stands for a point at which it may be killed.
    void serve(const std::function<void()> &point) const {
        fakes::on_engine_call("x_client_engine_query_version_str", [=](const fakes::engine_call &) {
            point();
            const int left = get("left").empty() ? -1 : std::stoi(get("left"));
            if (left == 0) {
                put("ioc", get("next"));
            }
            if (left >= 0) {
                put("left", std::to_string(left - 1));
            }
            fakes::set_engine_version(ENGINE_IOC, get("ioc"));
            fakes::set_engine_version(ENGINE_IOA, get("ioa"));
        });
        const auto take = [=](const fakes::engine_call &call) {
            point();
            const char engine = call.text[call.text.find('(') + 1];
            const size_t from = call.text.find(", ") + 2;
            const std::string content =
                whole_file(call.text.substr(from, call.text.size() - from - 1));
            std::ofstream(at + "/taken", std::ios::app) << engine << ' ' << content << '\n';
            if (engine == '1') {
                put("next", content);
                put("left", std::to_string(delay));
            } else if (engine == '2') {
                put("ioa", std::to_string(std::stoi(get("ioa")) + 1));
            }
            point();
        };
        fakes::on_engine_call("x_client_engine_update", take);
        fakes::on_engine_call("x_client_engine_update_async", take);
    }

  private:
    void put(const std::string &name, const std::string &text) const {
        std::ofstream(at + "/" + name) << text;
    }

    std::string at;
    int delay;
};

class kzemm_upgrade_kill_test : public upgrade_test {
  protected:
    void SetUp() override {
        upgrade_test::SetUp();
        drop_pack("ioc_full_5.0.tgz", "ioc_full_5.0.json", "5.0");
        drop_pack("ioc_x-5.1].tgz", "ioc_x-5.1].json", "5.1");
        drop_pack("ioc_x-5.2].tgz", "ioc_x-5.2].json", "5.2");
        drop_pack("ioc_full_4.9.tgz", "ioc_full_4.9.json", "4.9");
        drop_pack("ioc_x-4.8].tgz", "ioc_x-4.8].json", "4.8");
        drop_pack("ioa_linux_en.tgz", "linux_kzedbd.cfg", "new ioa");
        drop_pack("ioa_linux_bk_1.tgz", "linux_kzedbd.cfg", "old ioa");
        drop_pack("md_linux.tgz", "linux_kzemsi.ptn", "new md");
        drop_pack("md_linux_bk_1.tgz", "linux_kzemsi.ptn", "old md");
        std::filesystem::rename(in_tree("hlthreat_rule"), in_tree("packs"));
    }

    void lay_out() const {
        std::filesystem::remove_all(in_tree("hlthreat_rule"));
        std::filesystem::copy(in_tree("packs"), in_tree("hlthreat_rule"));
        std::filesystem::remove(in_tree("qd_agent/bin/kzedbd.cfg"));
        write_file("config/ioc_full_tag", "");
    }

    // Runs some ticks in a process of their own, which is killed at the nth point (0: at none). The
    // number of points, or 0 when it was killed.
    unsigned int run(const lasting_engine &engine, int ticks, unsigned int kill_at) {
        std::filesystem::remove(in_tree("points"));
        const pid_t pid = fork();
        if (pid == 0) {
            run_in_child(engine, ticks, kill_at);
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        if (WIFSIGNALED(status)) {
            EXPECT_EQ(WTERMSIG(status), SIGKILL);
            return 0;
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        return static_cast<unsigned int>(std::stoul("0" + read_file("points")));
    }

    // Kills a pass at each of its points, and each time has a new process finish the work.
    void sweep(int queries_until_it_rises, bool each_update_once);

  private:
    [[noreturn]] void run_in_child(const lasting_engine &engine, int ticks, unsigned int kill_at) {
        unsigned int passed = 0;
        const auto point = [&] {
            if (++passed == kill_at) {
                raise(SIGKILL);
            }
        };
        fakes::on_file_call([&](fakes::file_call, bool) { point(); });
        fakes::instead_of_commands([&](const std::string &command) {
            if (++passed == kill_at) {
                // tar goes with it, half-way
                write_rule(unpacked_by(command), "half");
                raise(SIGKILL);
            }
            return system_exec(command.c_str());
        });
        engine.serve(point);
        config::ioc_switch() = true;
        config::ioa_switch() = true;
        config::md_switch() = true;
        for (int each = 0; each < ticks; ++each) {
            cl_timerplus timer = {relay.get()};
            CUpgradeRelay::timer_upgrade_callback(&timer);
            if (state::s_md_last_result == -16) {
                point();
                CUpgradeRelay::on_md_engine_update_cb(ENGINE_MD, 0, nullptr);
            }
        }
        write_file("points", std::to_string(passed));
        _exit(HasFailure() ? 1 : 0);
    }

    static std::string unpacked_by(const std::string &command) {
        const size_t from = command.find("//") + 2;
        const std::string pack = command.substr(from, command.find(".tgz") - from);
        if (pack.rfind("ioc_", 0) == 0) {
            return pack + ".json";
        }
        return pack.rfind("ioa_", 0) == 0 ? "linux_kzedbd.cfg" : "linux_kzemsi.ptn";
    }
};

void kzemm_upgrade_kill_test::sweep(int queries_until_it_rises, bool each_update_once) {
    const lasting_engine engine(in_tree("engine"), queries_until_it_rises);
    lay_out();
    engine.forget();
    const unsigned int points = run(engine, 1, 0);
    ASSERT_GT(points, 60U);
    EXPECT_THAT(engine.taken('1'), ElementsAre("5.0", "5.1", "5.2"));
    EXPECT_THAT(entries(), IsEmpty());

    for (unsigned int each = 1; each <= points; ++each) {
        SCOPED_TRACE("killed at point " + std::to_string(each) + " of " + std::to_string(points));
        lay_out();
        engine.forget();
        ASSERT_EQ(run(engine, 1, each), 0U) << "it was not killed";
        ASSERT_GT(run(engine, passes_to_finish, 0), 0U);

        const names ioc = engine.taken('1');
        EXPECT_TRUE(std::is_sorted(ioc.begin(), ioc.end())) << "out of order";
        EXPECT_EQ(std::set<std::string>(ioc.begin(), ioc.end()),
                  std::set<std::string>({"5.0", "5.1", "5.2"}));
        if (each_update_once) {
            EXPECT_EQ(ioc.size(), 3U);
        }
        EXPECT_EQ(engine.get("ioc"), "5.2");
        // The new pack replaces the backup, and comes to the engine whole.
        EXPECT_THAT(engine.taken('2'), AllOf(Not(IsEmpty()), Each(std::string("new ioa"))));
        EXPECT_THAT(engine.taken('3'), AllOf(Not(IsEmpty()), Each(std::string("new md"))));
        // No pack is left. Of what was unpacked, the one file that the killed pass had in hand may.
        const names left = entries();
        EXPECT_LE(left.size(), 1U);
        EXPECT_THAT(left, Each(AnyOf(testing::EndsWith(".json"), std::string("linux_kzedbd.cfg"),
                                     std::string("linux_kzemsi.ptn"))));
        if (HasFailure()) {
            return;
        }
    }
    std::cout << "killed at each of " << points << " points\n";
}

}  // namespace

TEST_F(kzemm_upgrade_kill_test, a_new_start_finishes_what_a_kill_at_any_point_left) {
    sweep(0, true);
}

TEST_F(kzemm_upgrade_kill_test, and_so_it_does_with_an_engine_whose_version_rises_late) {
    sweep(2, false);
}
