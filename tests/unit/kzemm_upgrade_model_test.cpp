/*
 * The relay against the second statement of its rules, with random directories, engines and
 * answers. KZE_UPGRADE_CASES says how many cases are run, KZE_UPGRADE_SEED with which number the
 * first one begins; each case has a seed of its own, which a failure names.
 */
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>

#include "tests/support/upgrade_rules.h"
#include "tests/unit/upgrade_test.h"

namespace {

using upgrade_rules::version;

// The seeds that are run first, always; that of a case that failed once belongs here.
constexpr unsigned long kept_seeds[] = {1, 2, 3, 17, 4711, 20261121};

constexpr unsigned long usual_cases = 2000;

struct digits {
    const char *text;
    int value;  // as the relay stores it
};

constexpr digits numbers[] = {{"1", 1},
                              {"2", 2},
                              {"3", 3},
                              {"4", 4},
                              {"5", 5},
                              {"0", 0},
                              {"10", 10},
                              {"007", 7},
                              {"", 0},
                              {"a", 0},
                              {"2x", 2},
                              {" 3", 3},
                              {"2147483647", 2147483647},
                              {"2147483648", -2147483647 - 1},
                              {"4294967295", -1},
                              {"4294967297", 1},
                              {"9223372036854775809", 1},
                              {"18446744073709551616", -1}};
constexpr size_t plain_numbers = 6;

using random_source = std::mt19937;

int pick(random_source &random, int limit) {
    return static_cast<int>(random() % static_cast<unsigned int>(limit));
}

bool chance(random_source &random, int percent) {
    return pick(random, 100) < percent;
}

digits some_number(random_source &random) {
    const bool odd = chance(random, 12);
    return numbers[static_cast<size_t>(
        pick(random, odd ? static_cast<int>(std::size(numbers)) : int{plain_numbers}))];
}

int wrapped(unsigned int value) {
    return static_cast<int>(value);
}

std::string text_of(version at) {
    return std::to_string(at.first) + "." + std::to_string(at.second);
}

// The names that a case may use for IOC packs, with the versions that the engine may reach by them.
struct ioc_name {
    std::string name;
    std::vector<version> versions;
};

ioc_name some_ioc_name(random_source &random) {
    const digits major = some_number(random);
    const digits minor = some_number(random);
    const digits other = some_number(random);
    const version at = {major.value, minor.value};
    const std::string dotted = std::string(major.text) + "." + minor.text;
    switch (pick(random, 12)) {
        case 0:
        case 1:
        case 2:
            return {"ioc_full_" + dotted, {at}};
        case 3:
            return {"ioc_update_" + dotted, {at}};
        case 4:
            return {"ioc_lnx_" + dotted + "-" + other.text + ".1]", {at, {other.value, 1}}};
        case 5:
            return {"ioc_lnx_-" + dotted + "]",
                    {at, {wrapped(0U - static_cast<unsigned int>(major.value)), minor.value}}};
        case 6:
            return {(chance(random, 50) ? "ioc_" : "ioc_full_x-") + dotted, {at}};
        case 7:
            return {"ioc_9.9-" + dotted + "]_more.v", {at}};
        default:
            return {(chance(random, 50) ? "ioc_x-" : "ioc_a_b-") + dotted + "]", {at}};
    }
}

/*
 * The engine, tar and chance, as one case sets them. Two of the same seed answer the same calls in
 * the same way.
 */
class scripted_engine {
  public:
    scripted_engine(unsigned long seed, const std::vector<ioc_name> &known_names)
        : random(static_cast<unsigned int>(seed ^ 0x9e3779b9UL)), names(known_names) {
        ioc = {pick(random, 6), pick(random, 6)};
        ioa = pick(random, 4);
        failing_queries = chance(random, 70) ? 0 : chance(random, 60) ? 20 : 100;
        refusals = chance(random, 60) ? 0 : 40;
        bad_tars = chance(random, 80) ? 0 : 30;
    }

    int query(int engine, std::optional<std::string> &text) {
        text.reset();
        if (chance(random, failing_queries)) {
            switch (pick(random, 4)) {
                case 0:
                    return 0;  // and no text
                case 1:
                    text = engine == 1 ? "nothing" : "9";
                    return engine == 1 ? 0 : -2;
                default:
                    return 7;
            }
        }
        if (engine == 1) {
            turn(ioc_delay, ioc, ioc_next);
            text = text_of(ioc);
        } else {
            turn(ioa_delay, ioa, ioa_next);
            text = std::to_string(ioa);
        }
        return 0;
    }

    int update(int engine, const std::string &file) {
        if (const int code = refusal()) {
            return code;
        }
        if (engine == 1) {
            ioc_next = reached_by(file);
            ioc_delay = some_delay();
        } else {
            ioa_next = ioa + pick(random, 4) - 1;
            ioa_delay = some_delay();
        }
        return 0;
    }

    int update_async(const std::function<void(int, int)> &callback) {
        if (chance(random, 10)) {
            callback(chance(random, 80) ? 3 : 2, chance(random, 50) ? 0 : 4);
        }
        return refusal();
    }

    std::optional<std::string> unpack(const std::optional<std::string> &content) {
        if (!content || *content == "bad" || chance(random, bad_tars)) {
            return std::nullopt;
        }
        return *content;
    }

  private:
    template <typename value>
    static void turn(int &delay, value &now, const value &next) {
        if (delay == 0) {
            now = next;
        }
        if (delay >= 0) {
            --delay;
        }
    }

    int refusal() {
        static constexpr int codes[] = {-8, -14, -1, -9, 3, -16};
        return chance(random, refusals) ? codes[pick(random, 6)] : 0;
    }

    // How many queries a change waits for: mostly none, and both sides of the limit; -1 for ever.
    int some_delay() {
        static constexpr int delays[] = {0, 0, 0, 0, 1, 2, 58, 59, 60, -1};
        return delays[pick(random, 10)];
    }

    version reached_by(const std::string &file) {
        const std::string name = file.substr(0, file.rfind('.'));
        version result = {pick(random, 6), pick(random, 6)};
        for (const ioc_name &each : names) {
            if (each.name == name) {
                result = each.versions[static_cast<size_t>(
                    pick(random, static_cast<int>(each.versions.size())))];
            }
        }
        if (chance(random, 10)) {
            result.second = wrapped(static_cast<unsigned int>(result.second) + 1);  // past the pack
        }
        return result;
    }

    random_source random;
    const std::vector<ioc_name> &names;
    version ioc;
    version ioc_next;
    int ioc_delay = -1;
    int ioa = 0;
    int ioa_next = 0;
    int ioa_delay = -1;
    int failing_queries = 0;
    int refusals = 0;
    int bad_tars = 0;
};

// The engine client in front of the scripted engine.
scripted_engine *s_engine = nullptr;
int s_buffers = 0;

int query_version(_engine_type type, char **text_out) {
    fakes::note(fakes::what::engine,
                "x_client_engine_query_version_str(" + std::to_string(type) + ")");
    std::optional<std::string> text;
    const int code = s_engine->query(type, text);
    if (text) {
        *text_out = strdup(text->c_str());
        ++s_buffers;
    }
    return code;
}

void give_back(void *text) {
    s_buffers -= text != nullptr ? 1 : 0;
    free(text);
}

std::string base_name(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

int engine_update(_engine_type type, const char *path) {
    fakes::note(fakes::what::engine,
                "x_client_engine_update(" + std::to_string(type) + ", " + path + ")");
    return s_engine->update(type, base_name(path));
}

int engine_update_async(_engine_type type, const char *path, qd_update_cb callback, void *context) {
    fakes::note(fakes::what::engine,
                "x_client_engine_update_async(" + std::to_string(type) + ", " + path + ")");
    return s_engine->update_async([&](int engine, int result) {
        callback(static_cast<_engine_type>(engine), result, context);
    });
}

// How to run the case in work again, for a death that no assertion tells.
char s_last_words[128];

void tell_last_words() {
    const ssize_t written = write(STDERR_FILENO, s_last_words, strlen(s_last_words));
    static_cast<void>(written);
}

void die_with_last_words(int signal_number) {
    tell_last_words();
    raise(signal_number);  // by its default action, once this has returned
}

// Where a sanitizer is linked in, it catches some of the signals itself and calls this back.
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

void have_last_words() {
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(tell_last_words);
    }
    for (const int each : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV}) {
        struct sigaction now = {};
        sigaction(each, nullptr, &now);
        if ((now.sa_flags & SA_SIGINFO) == 0 && now.sa_handler == SIG_DFL) {
            now.sa_handler = die_with_last_words;
            now.sa_flags = static_cast<int>(SA_RESETHAND);
            sigaction(each, &now, nullptr);
        }
    }
}

void note_case(unsigned long seed) {
    snprintf(s_last_words, sizeof(s_last_words),
             "died in a case; run it alone: KZE_UPGRADE_CASES=1 KZE_UPGRADE_SEED=%lu\n", seed);
}

template <typename signature>
void *checked(signature function) {
    return reinterpret_cast<void *>(function);
}

class kzemm_upgrade_model_test : public upgrade_test {
  protected:
    // In memory where that is possible: the cases make very many small files.
    void SetUp() override {
        have_last_words();
        const bool chosen = getenv("TMPDIR") != nullptr;
        if (!chosen && access("/dev/shm", W_OK | X_OK) == 0) {
            setenv("TMPDIR", "/dev/shm", 1);
        }
        upgrade_test::SetUp();
        if (!chosen) {
            unsetenv("TMPDIR");
        }
        kzemm_loader::get_instance().uninit();
        fakes::symbols client = fakes::engine_symbols();
        client["x_client_engine_query_version_str"] =
            checked<x_client_engine_query_version_str_fn>(query_version);
        client["x_client_free"] = checked<x_client_free_fn>(give_back);
        client["x_client_engine_update"] = checked<x_client_engine_update_fn>(engine_update);
        client["x_client_engine_update_async"] =
            checked<x_client_engine_update_async_fn>(engine_update_async);
        fakes::add_library(fakes::engine_library, client);
        load_libraries();
    }

    // Runs one case. False when the two differ, which has been told.
    bool agree(unsigned long seed);

    // How often each kind of call was made, by the first word of its text.
    std::map<std::string, unsigned long> compared;

  private:
    struct model_side;

    void empty_tree() const {
        for (const char *const each : {"hlthreat_rule", "qd_agent/bin", "config"}) {
            for (const auto &file : std::filesystem::directory_iterator(in_tree(each))) {
                std::filesystem::remove_all(file.path());
            }
        }
    }
    std::map<std::string, std::string> real_files() const {
        std::map<std::string, std::string> result;
        for (const std::string &each : entries()) {
            result[each] = read_file("hlthreat_rule/" + each);
        }
        return result;
    }
    // Runs tar in a case: the pack's content is the name of the file that it holds.
    int run_tar(const std::string &command) const {
        const std::string start = "tar -zxvf '" + rules() + "/";
        const std::string name =
            command.substr(start.size(), command.find('\'', start.size()) - start.size());
        std::optional<std::string> content;
        if (has_rule(name)) {
            content = read_file("hlthreat_rule/" + name);
        }
        const std::optional<std::string> made = s_engine->unpack(content);
        if (made) {
            write_rule(*made, "unpacked");
        }
        return made ? 0 : -1;
    }
    void put(model_side &model, const std::string &name, const std::string &content) const;
    void drop_some(random_source &random, const std::vector<ioc_name> &known, model_side &model,
                   int most) const;
};

// The second statement, with surroundings of the same seed.
struct kzemm_upgrade_model_test::model_side : upgrade_rules::surroundings {
    model_side(unsigned long seed, const std::vector<ioc_name> &known,
               const upgrade_rules::places &where)
        : engine(seed, known), relay(*this, where) {}

    int query(int type, std::optional<std::string> &text) override {
        return engine.query(type, text);
    }
    int update(int type, const std::string &file) override { return engine.update(type, file); }
    int update_async(const std::string &, const std::function<void(int, int)> &callback) override {
        return engine.update_async(callback);
    }
    std::optional<std::string> unpack(const std::optional<std::string> &content) override {
        return engine.unpack(content);
    }
    // The real directory's order of that moment; its names must be the statement's.
    std::vector<std::string> listing() override {
        std::vector<std::string> own;
        for (const auto &each : relay.files) {
            own.push_back(each.first);
        }
        if (listings.empty()) {
            same_listings = false;
            return own;
        }
        std::vector<std::string> result = listings.front();
        listings.erase(listings.begin());
        std::vector<std::string> sorted = result;
        std::sort(sorted.begin(), sorted.end());
        same_listings = same_listings && sorted == own;
        return result;
    }
    int random_number() override { return number; }

    scripted_engine engine;
    upgrade_rules::relay relay;
    std::vector<std::vector<std::string>> listings;
    bool same_listings = true;
    int number = 0;
};

void kzemm_upgrade_model_test::put(model_side &model, const std::string &name,
                                   const std::string &content) const {
    write_rule(name, content);
    model.relay.files[name] = content;
}

void kzemm_upgrade_model_test::drop_some(random_source &random, const std::vector<ioc_name> &known,
                                         model_side &model, int most) const {
    const int count = pick(random, most + 1);
    for (int each = 0; each < count; ++each) {
        const ioc_name &chosen =
            known[static_cast<size_t>(pick(random, static_cast<int>(known.size())))];
        const bool bad = chance(random, 4);
        put(model, chosen.name + (chance(random, 95) ? ".tgz" : ".tgz.part"),
            bad ? "bad" : chosen.name + ".json");
    }
    static const struct {
        const char *name;
        const char *content;
    } others[] = {{"ioa_linux_en.tgz", "linux_kzedbd.cfg"},
                  {"ioa_linux_bk_1.tgz", "linux_kzedbd.cfg"},
                  {"ioa_linux_bk_2.tgz", "linux_kzedbd.cfg"},
                  {"md_linux.tgz", "linux_kzemsi.ptn"},
                  {"md_linux_bk_1.tgz", "linux_kzemsi.ptn"},
                  {"md_linux_bk_2.tgz", "linux_kzemsi.ptn"},
                  {"md_linux_bk_.tgz", "other.ptn"},
                  {"ioa_linux_bk.tgz", "other.cfg"},
                  {"linux_kzemsi.ptn", "left"},
                  {"linux_kzedbd.cfg", "left"},
                  {".ioc_full_9.9.tgz", "hidden"},
                  {"other.txt", "other"}};
    for (const auto &each : others) {
        if (chance(random, 15)) {
            put(model, each.name, chance(random, 8) ? "bad" : each.content);
        }
    }
}

bool kzemm_upgrade_model_test::agree(unsigned long seed) {
    note_case(seed);
    random_source random(static_cast<unsigned int>(seed));
    std::vector<ioc_name> known;
    const int kinds = 1 + pick(random, 10);
    for (int each = 0; each < kinds; ++each) {
        known.push_back(some_ioc_name(random));
    }
    scripted_engine engine(seed, known);
    s_engine = &engine;
    s_buffers = 0;
    model_side model(seed, known, {rules(), flag(), in_tree("bin/../qd_agent/bin/")});

    empty_tree();
    drop_some(random, known, model, 9);
    if (chance(random, 50)) {
        write_file("config/ioc_full_tag", "");
        model.relay.has_flag = true;
    }
    if (chance(random, 50)) {
        write_file("qd_agent/bin/kzedbd.cfg", "");
        model.relay.has_target = true;
    }
    relay = std::make_unique<CUpgradeRelay>();
    state::s_md_last_result = 0;
    state::s_md_retry_times = 0;
    state::s_md_tgz_path.clear();
    state::s_md_cfg_path.clear();

    fakes::reset_virtual_time();
    fakes::set_log_level(-1);
    fakes::instead_of_commands([this](const std::string &command) { return run_tar(command); });
    fakes::on_file_call([&](fakes::file_call kind, bool done) {
        if (kind == fakes::file_call::open_directory && !done) {
            model.listings.push_back(in_directory_order(""));
        }
    });

    bool same = true;
    const int ticks = 1 + pick(random, chance(random, 10) ? 14 : 4);
    for (int each = 0; each < ticks && same; ++each) {
        config::ioc_switch() = chance(random, 80);
        config::ioa_switch() = chance(random, 60);
        config::md_switch() = chance(random, 70);
        model.number = pick(random, 4);
        fakes::set_rand_by_time(model.number);
        fakes::clear_journal();
        model.relay.calls.clear();

        cl_timerplus timer = {relay.get()};
        CUpgradeRelay::timer_upgrade_callback(&timer);
        model.relay.tick(config::ioc_switch(), config::ioa_switch(), config::md_switch());
        if (model.relay.md_last == -16 && chance(random, 80)) {
            const int type = chance(random, 85) ? 3 : 1;
            const int result = chance(random, 30) ? 0 : pick(random, 5) - 2;
            CUpgradeRelay::on_md_engine_update_cb(static_cast<_engine_type>(type), result, nullptr);
            model.relay.md_ends(type, result);
        }

        EXPECT_EQ(fakes::texts({fakes::what::file, fakes::what::engine, fakes::what::sleep}),
                  model.relay.calls);
        for (const std::string &call : model.relay.calls) {
            ++compared[call.substr(0, call.find_first_of(" ,)"))];
        }
        EXPECT_EQ(real_files(), model.relay.files);
        EXPECT_TRUE(model.same_listings);
        EXPECT_TRUE(model.listings.empty());
        EXPECT_EQ(exists("config/ioc_full_tag"), model.relay.has_flag);
        EXPECT_EQ(exists("qd_agent/bin/kzedbd.cfg"), model.relay.has_target);
        EXPECT_EQ(version(fields::ev(*relay).major, fields::ev(*relay).minor), model.relay.engine);
        EXPECT_EQ(state::s_md_last_result, model.relay.md_last);
        EXPECT_EQ(state::s_md_retry_times, model.relay.md_failures);
        EXPECT_EQ(s_buffers, 0);
        same = !HasFailure();
        if (same && chance(random, 40)) {
            drop_some(random, known, model, 3);
        }
    }
    fakes::reset_file_faults();
    return same;
}

unsigned long number_from(const char *variable, unsigned long usual) {
    const char *const text = getenv(variable);
    return text != nullptr ? strtoul(text, nullptr, 10) : usual;
}

}  // namespace

TEST_F(kzemm_upgrade_model_test, the_relay_and_the_second_statement_of_its_rules_agree) {
    for (const unsigned long seed : kept_seeds) {
        ASSERT_TRUE(agree(seed)) << "kept seed " << seed;
    }
    const unsigned long cases = number_from("KZE_UPGRADE_CASES", usual_cases);
    const unsigned long first = number_from("KZE_UPGRADE_SEED", 100000);
    for (unsigned long each = 0; each < cases; ++each) {
        ASSERT_TRUE(agree(first + each))
            << "run it alone: KZE_UPGRADE_CASES=1 KZE_UPGRADE_SEED=" << first + each;
    }
    std::cout << cases << " cases from seed " << first << " agree:";
    for (const auto &[call, times] : compared) {
        std::cout << ' ' << call << ' ' << times;
    }
    std::cout << '\n';
    for (const char *const call :
         {"delete", "rename", "run", "1000000", "5000000", "x_client_engine_query_version_str(1",
          "x_client_engine_query_version_str(2", "x_client_engine_update(1",
          "x_client_engine_update(2", "x_client_engine_update_async(3"}) {
        EXPECT_GT(compared[call], cases / 20) << "hardly a case comes to " << call;
    }
}

TEST_F(kzemm_upgrade_model_test, a_case_that_dies_tells_its_seed) {
    const auto die = [](int signal_number) {
        note_case(4712);
        raise(signal_number);
    };
    EXPECT_DEATH(die(SIGSEGV), "KZE_UPGRADE_SEED=4712");
    EXPECT_DEATH(die(SIGABRT), "KZE_UPGRADE_SEED=4712");
}
