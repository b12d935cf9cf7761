/*
 * The relay's process killed at each point of a pass, with real files: the next start finishes the
 * work. One sweep has real packs and tar; the others have texts that unpack to themselves, which
 * is quicker.
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

constexpr char no_archive[] = "no archive";

// What the engine that refuses answers to its first calls: an IOC pack that waits with the one
// behind it, and IOA; MD has a call of its own.
constexpr int refusing_answers[] = {0, -8, -8};
constexpr int refusing_md_answers[] = {-8};

struct engine_ways {
    int queries_until_it_rises;
    bool refuses;
};

std::string whole_file(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// An engine whose memory is files, so that it outlives the relay's process. It takes each file and
// its version rises with the call, or some queries later.
class lasting_engine {
  public:
    lasting_engine(std::string directory, const engine_ways &its_ways)
        : at(std::move(directory)), ways(its_ways) {}

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
        if (ways.refuses) {
            fakes::engine_returns(update, answers_left(refusing_answers, update));
            fakes::engine_returns(async_update, answers_left(refusing_md_answers, async_update));
        }
        const auto take = [=](const fakes::engine_call &call) {
            point();
            if (ways.refuses && answer(call.name) != 0) {
                point();
                return;
            }
            const char engine = call.text[call.text.find('(') + 1];
            const size_t from = call.text.find(", ") + 2;
            const std::string content =
                whole_file(call.text.substr(from, call.text.size() - from - 1));
            std::ofstream(at + "/taken", std::ios::app) << engine << ' ' << content << '\n';
            if (engine == '1') {
                put("next", content);
                put("left", std::to_string(ways.queries_until_it_rises));
            } else if (engine == '2') {
                put("ioa", std::to_string(std::stoi(get("ioa")) + 1));
            }
            point();
        };
        fakes::on_engine_call(update, take);
        fakes::on_engine_call(async_update, take);
    }
    size_t calls() const { return counted(update) + counted(async_update); }

  private:
    static constexpr char update[] = "x_client_engine_update";
    static constexpr char async_update[] = "x_client_engine_update_async";

    size_t counted(const std::string &call) const { return get(call).size(); }
    template <size_t count>
    std::vector<int> answers_left(const int (&answers)[count], const std::string &call) const {
        return {answers + std::min(counted(call), count), answers + count};
    }
    // Counts a call, and tells what the fake gives for it.
    int answer(const std::string &call) const {
        const std::vector<int> left = call == update ? answers_left(refusing_answers, call)
                                                     : answers_left(refusing_md_answers, call);
        std::ofstream(at + "/" + call, std::ios::app) << '.';
        return left.empty() ? 0 : left.front();
    }
    void put(const std::string &name, const std::string &text) const {
        std::ofstream(at + "/" + name) << text;
    }

    std::string at;
    engine_ways ways;
};

class kzemm_upgrade_kill_test : public upgrade_test {
  protected:
    void make_packs() {
        put("ioc_full_5.0.tgz", "ioc_full_5.0.json", "5.0");
        put("ioc_x-5.1].tgz", "ioc_x-5.1].json", "5.1");
        put("ioc_x-5.2].tgz", "ioc_x-5.2].json", "5.2");
        put("ioc_full_4.9.tgz", "ioc_full_4.9.json", "4.9");
        put("ioc_x-4.8].tgz", "ioc_x-4.8].json", "4.8");
        write_rule(damaged, no_archive);
        write_rule(of_neither_form);
        put("ioa_linux_en.tgz", "linux_kzedbd.cfg", "new ioa");
        put("ioa_linux_bk_1.tgz", "linux_kzedbd.cfg", "old ioa");
        put("md_linux.tgz", "linux_kzemsi.ptn", "new md");
        put("md_linux_bk_1.tgz", "linux_kzemsi.ptn", "old md");
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
    void sweep(const engine_ways &ways, bool each_update_once);

    bool real_packs = false;

    // The two that stay: nothing lies behind the damaged one.
    const std::string damaged = "ioc_x-6.0].tgz";
    const std::string of_neither_form = "ioc_neither.tgz";

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
            return real_packs ? system_exec(command.c_str()) : unpack(command);
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

    void put(const std::string &pack, const std::string &file, const std::string &text) const {
        if (real_packs) {
            drop_pack(pack, file, text);
        } else {
            write_rule(pack, text);
        }
    }
    int unpack(const std::string &command) const {
        const std::string text = read_file("hlthreat_rule/" + packed_in(command) + ".tgz");
        if (text == no_archive) {
            return -1;
        }
        write_rule(unpacked_by(command), text);
        return 0;
    }
    static std::string packed_in(const std::string &command) {
        const size_t from = command.find("//") + 2;
        return command.substr(from, command.find(".tgz") - from);
    }
    static std::string unpacked_by(const std::string &command) {
        const std::string pack = packed_in(command);
        if (pack.rfind("ioc_", 0) == 0) {
            return pack + ".json";
        }
        return pack.rfind("ioa_", 0) == 0 ? "linux_kzedbd.cfg" : "linux_kzemsi.ptn";
    }
};

void kzemm_upgrade_kill_test::sweep(const engine_ways &ways, bool each_update_once) {
    const lasting_engine engine(in_tree("engine"), ways);
    const int ticks = ways.refuses ? 2 : 1;
    make_packs();
    lay_out();
    engine.forget();
    const unsigned int points = run(engine, ticks, 0);
    ASSERT_GT(points, 60U);
    EXPECT_THAT(engine.taken('1'), ElementsAre("5.0", "5.1", "5.2"));
    EXPECT_EQ(engine.calls(), ways.refuses ? 8U : 0U) << "counted where some are refused";
    EXPECT_THAT(entries(), ElementsAre(of_neither_form, damaged));

    for (unsigned int each = 1; each <= points; ++each) {
        SCOPED_TRACE("killed at point " + std::to_string(each) + " of " + std::to_string(points));
        lay_out();
        engine.forget();
        ASSERT_EQ(run(engine, ticks, each), 0U) << "it was not killed";
        ASSERT_GT(run(engine, ticks, 0), 0U);

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
        // The packs that the rules keep, as they were. Of what was unpacked, the one file that the
        // killed pass had in hand may be left too.
        EXPECT_EQ(read_file("hlthreat_rule/" + damaged), no_archive);
        EXPECT_EQ(read_file("hlthreat_rule/" + of_neither_form), "x");
        const names left = entries();
        EXPECT_LE(left.size(), 3U);
        EXPECT_THAT(left,
                    Each(AnyOf(damaged, of_neither_form, testing::EndsWith(".json"),
                               std::string("linux_kzedbd.cfg"), std::string("linux_kzemsi.ptn"))));
        if (HasFailure()) {
            return;
        }
    }
    std::cout << "killed at each of " << points << " points\n";
}

}  // namespace

TEST_F(kzemm_upgrade_kill_test, a_new_start_finishes_what_a_kill_at_any_point_left) {
    real_packs = true;
    sweep({0, false}, true);
}

TEST_F(kzemm_upgrade_kill_test, and_so_it_does_with_an_engine_whose_version_rises_late) {
    sweep({2, false}, false);
}

TEST_F(kzemm_upgrade_kill_test, and_so_it_does_with_packs_that_the_engine_refuses_for_now) {
    sweep({0, true}, true);
}
