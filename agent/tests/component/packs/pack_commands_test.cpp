/* kzectl pack: from rules to packs, into the rule directory, and what becomes of them there. */
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include "agent/common/rule_file.h"
#include "agent/tests/component/packs/pack_tools.h"
#include "tests/support/process_state.h"

namespace kze_test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string indicators = "# mine\n\ndomain:a.example\nip:192.0.2.1\n";

std::string bytes_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class pack_make : public packs_test {
  protected:
    /* What tar takes out of a pack: the names. */
    std::vector<std::string> unpack(const std::string &pack) const {
        std::filesystem::remove_all(tree.path("unpacked"));
        std::filesystem::create_directory(tree.path("unpacked"));
        const finished tar =
            run({"/usr/bin/env", "tar", "-zxf", pack, "-C", tree.path("unpacked").string()});
        EXPECT_EQ(tar.status, 0) << tar.errors;
        return files_in("unpacked");
    }
    kze::rule_file read(kze::rule_kind kind, const std::string &name) const {
        std::string problem;
        const auto file =
            kze::read_rule_file(kind, tree.path("unpacked/" + name).string(), problem);
        EXPECT_TRUE(file) << problem;
        return file.value_or(kze::rule_file());
    }
};

TEST_F(pack_make, a_full_pack_holds_a_json_file_of_its_own_name) {
    const std::string pack = make({"ioc-full"}, indicators, {"--version", "5.0"});
    EXPECT_EQ(pack, tree.path("made/ioc_full_5.0.tgz"));
    EXPECT_THAT(unpack(pack), ElementsAre("ioc_full_5.0.json"));
    const kze::rule_file file = read(kze::rule_kind::ioc, "ioc_full_5.0.json");
    EXPECT_EQ(file.version, "5.0");
    EXPECT_TRUE(file.full);
    EXPECT_THAT(file.rules, ElementsAre("domain:a.example", "ip:192.0.2.1"));
    EXPECT_THAT(files_in("made"), ElementsAre("ioc_full_5.0.tgz")) << "nothing else is left";
}

TEST_F(pack_make, an_incremental_pack_has_both_versions_in_its_name) {
    const std::string pack = make({"ioc-inc"}, indicators, {"--from", "5.0", "--version", "5.1"});
    EXPECT_EQ(pack, tree.path("made/ioc_inc_[5.0-5.1].tgz"));
    EXPECT_THAT(unpack(pack), ElementsAre("ioc_inc_[5.0-5.1].json"));
    EXPECT_FALSE(read(kze::rule_kind::ioc, "ioc_inc_[5.0-5.1].json").full);
    EXPECT_EQ(make({"ioc-inc"}, indicators, {"--version", "5.2"}),
              tree.path("made/ioc_inc_[any-5.2].tgz"));
}

TEST_F(pack_make, ioa_and_md_packs_have_fixed_names) {
    EXPECT_THAT(unpack(make({"ioa"}, "a rule\n", {"--version", "12"})),
                ElementsAre("linux_kzedbd.cfg"));
    EXPECT_EQ(read(kze::rule_kind::ioa, "linux_kzedbd.cfg").version, "12");
    EXPECT_THAT(unpack(make({"md"}, "Name.A:4d5a\n", {"--version", "7"})),
                ElementsAre("linux_kzemsi.ptn"));
    EXPECT_THAT(read(kze::rule_kind::md, "linux_kzemsi.ptn").rules, ElementsAre("Name.A:4d5a"));
    EXPECT_THAT(files_in("made"), ElementsAre("ioa_linux_en.tgz", "md_linux.tgz"));
}

TEST_F(pack_make, a_rule_file_in_the_engines_format_brings_its_version) {
    const std::string text = "version=12\nrule=a\n";
    unpack(make({"ioa"}, text));
    EXPECT_EQ(read(kze::rule_kind::ioa, "linux_kzedbd.cfg").version, "12");
    unpack(make({"ioa"}, text, {"--version", "13"}));
    EXPECT_EQ(read(kze::rule_kind::ioa, "linux_kzedbd.cfg").version, "13");
    EXPECT_EQ(make({"ioc-full"}, R"({"version":"3.1","kind":"full","indicators":["ip:1"]})"),
              tree.path("made/ioc_full_3.1.tgz"));
}

TEST_F(pack_make, the_same_rules_make_the_same_bytes) {
    const std::string pack = make({"ioc-full"}, indicators, {"--version", "5.0"});
    const std::string first = bytes_of(pack);
    ASSERT_FALSE(first.empty());
    std::filesystem::last_write_time(tree.path("rules.txt"), {});
    make({"ioc-full"}, indicators, {"--version", "5.0"});
    EXPECT_TRUE(bytes_of(pack) == first);
}

TEST_F(pack_make, the_example_packs_hold_the_example_rules) {
    struct example {
        const char *form;
        const char *rules;
        std::vector<std::string> options;
        const char *pack;
    };
    const std::string data = KZE_DATA;
    for (const example &each : std::vector<example>{
             {"ioc-full", "indicators_5.0.txt", {"--version", "5.0"}, "ioc_full_5.0.tgz"},
             {"ioc-inc",
              "indicators_4.9.txt",
              {"--from", "4.8", "--version", "4.9"},
              "ioc_inc_[4.8-4.9].tgz"},
             {"ioc-inc",
              "indicators_5.1.txt",
              {"--from", "5.0", "--version", "5.1"},
              "ioc_inc_[5.0-5.1].tgz"},
             {"ioa", "ioa_rules.txt", {"--version", "12"}, "ioa_linux_en.tgz"},
             {"md", "md_patterns.txt", {"--version", "7"}, "md_linux.tgz"}}) {
        const std::string made =
            make({each.form}, bytes_of(data + "/rules/" + each.rules), each.options);
        EXPECT_EQ(std::filesystem::path(made).filename(), each.pack);
        const std::vector<std::string> names = unpack(made);
        ASSERT_EQ(names.size(), 1U);
        const std::string text = tree.read("unpacked/" + names[0]);
        EXPECT_EQ(unpack(data + "/packs/" + each.pack), names);
        EXPECT_EQ(tree.read("unpacked/" + names[0]), text) << each.pack;
    }
}

TEST_F(pack_make, what_makes_no_pack_is_refused_and_nothing_is_left) {
    const auto refused = [this](const std::string &rules, std::vector<std::string> words) {
        tree.write("rules.txt", rules);
        words.insert(words.begin(), {"pack", "make"});
        words.insert(words.end(),
                     {tree.path("rules.txt").string(), "-o", tree.path("made").string()});
        const finished result = ctl(words);
        EXPECT_NE(result.status, 0) << rules;
        return result.errors;
    };
    EXPECT_THAT(refused(indicators, {"ioc-full"}), HasSubstr("has no version"));
    EXPECT_THAT(refused(indicators, {"ioc-full", "--version", "5"}), HasSubstr("<major>.<minor>"));
    EXPECT_THAT(refused(indicators, {"ioc-full", "--version", "../5.0"}),
                HasSubstr("<major>.<minor>"));
    EXPECT_THAT(refused(indicators, {"ioc-inc", "--version", "5.1", "--from", "full"}),
                HasSubstr("--from"));
    EXPECT_THAT(refused("ip:1\nnonsense\n", {"ioc-full", "--version", "5.0"}),
                HasSubstr("line 2: not an indicator"));
    EXPECT_THAT(refused("{", {"ioc-full", "--version", "5.0"}), HasSubstr("not valid JSON"));
    EXPECT_THAT(refused("Name:0\n", {"md", "--version", "5"}), HasSubstr("not a pattern"));
    EXPECT_THAT(files_in("made"), IsEmpty());
}

TEST_F(pack_make, a_corrupt_pack_is_one_that_tar_or_the_engine_refuses) {
    const std::string cut =
        make({"md"}, "Name.A:4d5a\n", {"--version", "7", "--corrupt", "archive"});
    EXPECT_NE(run({"/usr/bin/env", "tar", "-ztf", cut}).status, 0);
    const std::vector<std::pair<std::string, kze::rule_kind>> kinds = {
        {"ioc-full", kze::rule_kind::ioc},
        {"ioa", kze::rule_kind::ioa},
        {"md", kze::rule_kind::md}};
    for (const auto &[form, kind] : kinds) {
        const std::vector<std::string> names = unpack(
            make({form}, kind == kze::rule_kind::md ? "N:00\n" : "ip:1\n",
                 {"--version", kind == kze::rule_kind::ioc ? "5.0" : "5", "--corrupt", "rules"}));
        ASSERT_EQ(names.size(), 1U);
        std::string problem;
        EXPECT_FALSE(
            kze::read_rule_file(kind, tree.path("unpacked/" + names[0]).string(), problem));
    }
}

class pack_drop : public packs_test {};

TEST_F(pack_drop, packs_come_complete_under_their_names_and_nothing_else_is_left) {
    const std::string full = make({"ioc-full"}, indicators, {"--version", "5.0"});
    const std::string md = make({"md"}, "N:00\n", {"--version", "7"});
    const std::vector<json> dropped = ask({"pack", "drop", full, md});
    ASSERT_EQ(dropped.size(), 2U);
    for (const json &each : dropped) {
        EXPECT_THAT(each["warnings"], IsEmpty());
        EXPECT_EQ(each["replaced"], false);
        const std::string name = each["pack"];
        EXPECT_EQ(tree.read("hlthreat_rule/" + name), tree.read("made/" + name));
    }
    EXPECT_THAT(files_in("hlthreat_rule"), ElementsAre("ioc_full_5.0.tgz", "md_linux.tgz"));
    EXPECT_EQ(ask({"pack", "drop", md})[0]["replaced"], true);
    EXPECT_THAT(files_in("hlthreat_rule"), ElementsAre("ioc_full_5.0.tgz", "md_linux.tgz"));
}

/* Whoever looks meanwhile sees the old file, or all of the new one. */
TEST_F(pack_drop, no_look_ever_sees_a_part_of_a_pack) {
    tree.write("large/md_linux.tgz", std::string(std::size_t{8} << 20, 'a'));
    tree.write("small/md_linux.tgz", "b");
    ASSERT_EQ(ctl({"pack", "drop", tree.path("small/md_linux.tgz").string()}).status, 0);
    const std::string place = tree.path("hlthreat_rule/md_linux.tgz").string();
    std::size_t looks = 0;
    for (int round = 0; round < 10; ++round) {
        const char *size = round % 2 == 0 ? "large" : "small";
        child_process child({KZE_KZECTL, "--tree", tree.path("").string(), "pack", "drop",
                             tree.path(std::string(size) + "/md_linux.tgz").string()});
        int status = 0;
        while (waitpid(child.pid(), &status, WNOHANG) == 0) {
            struct stat info {};
            ASSERT_EQ(stat(place.c_str(), &info), 0);
            ASSERT_TRUE(info.st_size == 1 || info.st_size == off_t{8} << 20) << info.st_size;
            ++looks;
        }
        EXPECT_EQ(status, 0);
    }
    EXPECT_GT(looks, 100U);
    EXPECT_THAT(files_in("hlthreat_rule"), ElementsAre("md_linux.tgz"));
}

TEST_F(pack_drop, a_name_or_content_that_will_not_do_is_warned_of) {
    const std::string full = make({"ioc-full"}, indicators, {"--version", "5.0"});
    const auto warnings_of = [this](const std::string &name) {
        return ask({"pack", "drop", tree.path("made/" + name).string()})[0]["warnings"].dump();
    };
    std::filesystem::copy(full, tree.path("made/ioc_update_1.2.tgz"));
    EXPECT_THAT(warnings_of("ioc_update_1.2.tgz"),
                ::testing::AllOf(HasSubstr("counts as a full pack of version 1.2"),
                                 HasSubstr("holds no ioc_update_1.2.json")));
    std::filesystem::copy(full, tree.path("made/rules.tgz"));
    EXPECT_THAT(warnings_of("rules.tgz"), HasSubstr("nobody takes"));
    make({"md"}, "N:00\n", {"--version", "7", "--corrupt", "archive"});
    EXPECT_THAT(warnings_of("md_linux.tgz"), HasSubstr("tar can't unpack it: "));
}

TEST_F(pack_drop, one_file_that_cannot_be_read_keeps_all_of_them_out) {
    const std::string full = make({"ioc-full"}, indicators, {"--version", "5.0"});
    for (const std::string &bad : {tree.path("none.tgz").string(), tree.path("var").string()}) {
        EXPECT_EQ(ctl({"pack", "drop", full, bad}).status, 2);
    }
    EXPECT_THAT(files_in("hlthreat_rule"), IsEmpty());
}

class pack_list : public packs_test {};

TEST_F(pack_list, order_and_verdicts_are_those_of_the_next_look) {
    for (const char *name : {"ioc_full_5.0.tgz", "ioc_inc_[5.0-5.1].tgz", "ioc_inc_[4.8-4.9].tgz",
                             "md_linux.tgz", "ioc_1.tgz"}) {
        tree.write(std::string("hlthreat_rule/") + name, "");
    }
    const json list = ask({"pack", "list"})[0];
    EXPECT_FALSE(list.contains("engine")) << "it isn't running";
    std::map<std::string, json> packs;
    for (const json &each : list["packs"]) {
        packs[each["name"]] = each;
    }
    EXPECT_EQ(packs["ioc_full_5.0.tgz"]["order"], 1);
    EXPECT_EQ(packs["ioc_inc_[5.0-5.1].tgz"]["order"], 2);
    EXPECT_EQ(packs["ioc_inc_[5.0-5.1].tgz"]["incremental"], "5.1");
    EXPECT_EQ(packs["ioc_inc_[4.8-4.9].tgz"]["verdict"], "obsolete");
    EXPECT_EQ(packs["md_linux.tgz"]["verdict"], "goes");
    EXPECT_EQ(packs["ioc_1.tgz"]["verdict"], "ignored");
}

TEST_F(pack_list, without_a_directory_there_is_nothing) {
    EXPECT_THAT(ask({"pack", "list"})[0]["packs"], IsEmpty());
    const finished result = ctl({"pack", "list"});
    ASSERT_EQ(result.lines.size(), 1U);
    EXPECT_THAT(result.lines[0], HasSubstr("nothing lies in"));
}

class pack_watch : public packs_test {
  protected:
    static std::vector<std::string> fates(const std::vector<json> &events) {
        std::vector<std::string> texts;
        for (const json &event : events) {
            if (event.contains("fate")) {
                texts.push_back(event["fate"].get<std::string>() + " " +
                                event["pack"].get<std::string>());
            }
        }
        return texts;
    }
};

TEST_F(pack_watch, an_empty_directory_ends_it) {
    EXPECT_THAT(ask({"pack", "watch", "--until-empty"}), IsEmpty());
}

TEST_F(pack_watch, a_wait_ends_at_the_fate_that_is_meant) {
    tree.write("hlthreat_rule/ioc_inc_[5.0-5.1].tgz", "");
    tree.write("hlthreat_rule/md_linux.tgz", "");
    for (const char *pack : {"ioc_inc_[5.0-5.1].tgz", "ioc_inc_*"}) {
        EXPECT_THAT(fates(ask({"pack", "wait", pack, "waiting"})),
                    ElementsAre("waiting ioc_inc_[5.0-5.1].tgz"));
    }
    const json event = ask({"pack", "wait", "md*", "waiting", "--after", "1795235523.25"})[0];
    EXPECT_EQ(event["kind"], "MD");
    EXPECT_THAT(event["time"], ::testing::MatchesRegex("....-..-.. ..:..:........."));
    EXPECT_THAT(event["reason"], HasSubstr("looks every 120 s"));
    EXPECT_EQ(ctl({"pack", "wait", "md_linux.tgz", "applied"}).status, 3);
    EXPECT_THAT(ctl({"pack", "wait", "*", "eaten"}).errors, HasSubstr("is no fate"));
    EXPECT_EQ(ctl({"pack", "wait", "*", "waiting", "--after", "12@34.56"}).status, 2);
}

TEST_F(pack_watch, the_interval_is_that_of_the_plug_ins_settings) {
    tree.write("hlthreat_rule/md_linux.tgz", "");
    for (const auto &[seconds, told] :
         {std::pair("60", "every 60 s"), std::pair("59", "every 120 s")}) {
        tree.write("config/kzemdlmgr.ini",
                   std::string("[time]\nupgrade_check_interval = ") + seconds + "\n");
        EXPECT_THAT(ask({"pack", "wait", "*", "waiting"})[0]["reason"], HasSubstr(told));
    }
}

TEST_F(pack_watch, without_a_host_what_lies_there_is_told_and_the_status_is_3) {
    tree.write("hlthreat_rule/ioc_full_5.0.tgz", "");
    tree.write("hlthreat_rule/ioc_nonsense.tgz", "");
    EXPECT_THAT(fates(ask({"pack", "watch", "--until-empty"}, 3)),
                ElementsAre("waiting ioc_full_5.0.tgz", "waiting ioc_nonsense.tgz", "waiting "));
    std::filesystem::remove(tree.path("hlthreat_rule/ioc_full_5.0.tgz"));
    EXPECT_EQ(ctl({"pack", "watch", "--until-empty"}).status, 0)
        << "what nobody takes isn't waited for";
}

/* What the host forks for tar runs the host's program for a moment, under any process number. */
TEST_F(pack_watch, a_process_of_the_hosts_program_that_ends_is_not_the_hosts_end) {
    const std::string program = tree.path("bin/kze_agent").string();
    std::filesystem::copy_file("/bin/sleep", program,
                               std::filesystem::copy_options::overwrite_existing);
    tree.write("hlthreat_rule/ioc_full_5.0.tgz", "");
    child_process lower({program, "1000"});
    child_process higher({program, "1000"});
    for (const pid_t pid : {lower.pid(), higher.pid()}) {
        const std::string link = "/proc/" + std::to_string(pid) + "/exe";
        ASSERT_TRUE(eventually([&] { return std::filesystem::read_symlink(link) == program; }));
    }
    child_process watch({KZE_KZECTL, "--tree", tree.path("").string(), "pack", "watch", "--json",
                         "--timeout", "2.5"});
    EXPECT_THAT(watch.read_line(), HasSubstr("ioc_full_5.0.tgz"));
    EXPECT_THAT(watch.read_line(), HasSubstr("the engine doesn't answer"));
    child_process &first = lower.pid() < higher.pid() ? lower : higher;
    first.signal(SIGKILL);
    first.wait();
    EXPECT_THAT(watch.read_line(), HasSubstr("the time is up"));
    EXPECT_EQ(WEXITSTATUS(watch.wait()), 4);
}

}  // namespace
}  // namespace kze_test
