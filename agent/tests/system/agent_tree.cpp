#include "agent/tests/system/agent_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "tests/support/process_state.h"

namespace kze_test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string contents(int file) {
    std::string text;
    std::array<char, 64 * 1024> block;
    off_t offset = 0;
    for (ssize_t got = 0; (got = pread(file, block.data(), block.size(), offset)) > 0;) {
        text.append(block.data(), static_cast<std::size_t>(got));
        offset += got;
    }
    return text;
}

std::vector<char *> pointers(const std::vector<std::string> &texts) {
    std::vector<char *> all;
    for (const std::string &text : texts) {
        all.push_back(const_cast<char *>(text.c_str()));
    }
    all.push_back(nullptr);
    return all;
}

/* Our own environment without what would change how kzectl behaves, and the additions. */
std::vector<std::string> make_environment(const std::vector<std::string> &additions) {
    std::vector<std::string> all = additions;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('=') + 1);
        const bool is_set = std::any_of(additions.begin(), additions.end(), [&](const auto &added) {
            return added.compare(0, name.size(), name) == 0;
        });
        if (!is_set && name != "KZE_AGENT_HOME=" && name != "NO_COLOR=") {
            all.push_back(text);
        }
    }
    return all;
}

/* Hard links where they can be made: a tree costs no space then. */
void copy_tree(const fs::path &from, const fs::path &to) {
    std::error_code error;
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::create_hard_links, error);
    if (error) {
        fs::remove_all(to);
        fs::copy(from, to, fs::copy_options::recursive);
    }
}

std::string program_of(const char *pid) {
    std::array<char, PATH_MAX> path;
    const ssize_t length =
        readlink((std::string("/proc/") + pid + "/exe").c_str(), path.data(), path.size());
    return length <= 0 ? std::string() : std::string(path.data(), static_cast<std::size_t>(length));
}

}  // namespace

command_result run_program(const std::vector<std::string> &command,
                           const std::vector<std::string> &environment) {
    const std::vector<std::string> variables = make_environment(environment);
    const std::vector<char *> arguments = pointers(command);
    const std::vector<char *> values = pointers(variables);
    const int out = memfd_create("out", MFD_CLOEXEC);
    const int err = memfd_create("err", MFD_CLOEXEC);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) {
        dup2(nothing, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        execve(arguments[0], arguments.data(), values.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    command_result result;
    result.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    result.out = contents(out);
    result.err = contents(err);
    for (const int descriptor : {out, err, nothing}) {
        close(descriptor);
    }
    return result;
}

agent_tree::agent_tree(const std::string &below) {
    fs::create_directories(KZE_SYSTEM_TREES);
    std::string pattern = std::string(KZE_SYSTEM_TREES) + "/XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no temporary directory under " KZE_SYSTEM_TREES);
    }
    temporary_ = pattern;
    root_ = temporary_ / below;
    fs::create_directories(root_.parent_path());
    root_ = fs::canonical(root_.parent_path()) / root_.filename();
    copy_tree(KZE_BUILT_TREE, root_);
    for (const char *left : {"var", "run", "config"}) {
        fs::remove_all(root_ / left);
    }
    for (const char *part : {"host", "gateway"}) {
        fs::copy(fs::path(KZE_AGENT_SOURCES) / part / "config", root_ / "config");
    }
}

agent_tree::~agent_tree() {
    kill_all();
    std::error_code ignored;
    fs::remove_all(temporary_, ignored);
}

/* Never writes into a file that the build tree may share. */
void agent_tree::write(const std::string &below, const std::string &bytes) const {
    fs::create_directories(path(below).parent_path());
    fs::remove(path(below));
    std::ofstream(path(below), std::ios::binary) << bytes;
}

std::string agent_tree::read(const std::string &below) const {
    std::ifstream file(path(below), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void agent_tree::remove(const std::string &below) const {
    ASSERT_TRUE(fs::remove(path(below))) << below << " isn't there";
}

command_result agent_tree::ctl(const std::vector<std::string> &arguments,
                               const std::vector<std::string> &environment) const {
    std::vector<std::string> command = {path("bin/kzectl").string()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run_program(command, environment);
}

json agent_tree::ask(const std::vector<std::string> &arguments) const {
    std::vector<std::string> with_json = {"--json"};
    with_json.insert(with_json.end(), arguments.begin(), arguments.end());
    const command_result result = ctl(with_json);
    json value = json::parse(result.out, nullptr, false);
    EXPECT_EQ(result.status, done) << ::testing::PrintToString(arguments) << "\n"
                                   << result.out << result.err << logs();
    EXPECT_TRUE(value.is_object()) << result.out;
    return value.is_object() ? value : json::object();
}

void agent_tree::must(const std::vector<std::string> &arguments) const {
    const command_result result = ctl(arguments);
    EXPECT_EQ(result.status, done) << ::testing::PrintToString(arguments) << "\n"
                                   << result.out << result.err << logs();
}

void agent_tree::set(const std::string &module, const std::string &key,
                     const std::string &value) const {
    must({"config", "set", module, key, value});
}

void agent_tree::switch_on() const {
    set("/mgr/base_collect", "/enable_actioninfo", "true");
    set("/mgr/base_collect", "/adv_threats", "true");
}

std::int64_t agent_tree::mark(const std::string &which) const {
    return ask({"log", "mark", which}).value("offset", std::int64_t{0});
}

std::int64_t agent_tree::see(const std::string &text, std::int64_t after, const std::string &which,
                             int seconds) const {
    const command_result result =
        ctl({"--json", "log", "wait", text, which, "--after", std::to_string(after), "--timeout",
             std::to_string(seconds)});
    const json line = json::parse(result.out, nullptr, false);
    EXPECT_EQ(result.status, done) << "\"" << text << "\" isn't in the log of " << which << "\n"
                                   << logs();
    return result.status == done && line.is_object() ? line.value("next", after) : after;
}

bool agent_tree::has_logged(const std::string &text, std::int64_t after,
                            const std::string &which) const {
    return ctl({"log", "wait", text, which, "--after", std::to_string(after), "--timeout", "0"})
               .status == done;
}

std::int64_t agent_tree::newest_record() const {
    return ask({"gateway", "mark"}).value("id", std::int64_t{0});
}

std::int64_t agent_tree::wait_record(const std::string &type, std::int64_t after,
                                     const std::string &contains, int seconds) const {
    std::vector<std::string> arguments = {"--json",
                                          "gateway",
                                          "wait",
                                          "--type",
                                          type,
                                          "--after",
                                          std::to_string(after),
                                          "--timeout",
                                          std::to_string(seconds)};
    if (!contains.empty()) {
        arguments.insert(arguments.end(), {"--contains", contains});
    }
    const command_result result = ctl(arguments);
    EXPECT_EQ(result.status, done) << "no record of type " << type << "\n" << result.out << logs();
    const json record = json::parse(result.out, nullptr, false);
    return result.status == done && record.is_object() ? record.value("id", std::int64_t{0}) : 0;
}

std::vector<std::string> agent_tree::capabilities_on() const {
    std::vector<std::string> on;
    const json capabilities = ask({"engine", "status"}).value("capabilities", json::object());
    for (const auto &[name, value] : capabilities.items()) {
        if (value == true) {
            on.push_back(name);
        }
    }
    return on;
}

std::vector<tree_process> agent_tree::processes() const {
    const std::string prefix = root_.string() + "/";
    std::vector<tree_process> found;
    const std::unique_ptr<DIR, int (*)(DIR *)> proc(opendir("/proc"), &closedir);
    while (const dirent *entry = readdir(proc.get())) {
        const std::string program = program_of(entry->d_name);
        if (program.compare(0, prefix.size(), prefix) == 0) {
            found.push_back(
                {static_cast<pid_t>(std::stol(entry->d_name)), program.substr(prefix.size())});
        }
    }
    return found;
}

pid_t agent_tree::pid_of(const std::string &program) const {
    for (const tree_process &process : processes()) {
        if (process.program == program) {
            return process.pid;
        }
    }
    return 0;
}

std::vector<std::string> agent_tree::sockets() const {
    std::vector<std::string> found;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(path("run"), ignored)) {
        if (entry.is_socket(ignored)) {
            found.push_back(entry.path().filename().string());
        }
    }
    return found;
}

std::string agent_tree::kill_all() const {
    std::string text;
    /* Twice: a supervisor may just be starting its program again. */
    for (int round = 0; round < 2; ++round) {
        for (const tree_process &process : processes()) {
            text += process.program + " (" + std::to_string(process.pid) + ") ";
            kill(process.pid, SIGKILL);
        }
        eventually([this] { return processes().empty(); }, std::chrono::seconds(5));
    }
    return text;
}

std::string agent_tree::logs() const {
    std::string text;
    for (const char *which : {"worker", "host", "engine", "output"}) {
        text += std::string("--- ") + which + "\n" + ctl({"log", "tail", "-n", "40", which}).out;
    }
    return text;
}

void expect_nothing_left(const agent_tree &tree) {
    std::string left;
    for (const tree_process &process : tree.processes()) {
        left += process.program + " (" + std::to_string(process.pid) + ") ";
    }
    EXPECT_EQ(left, "") << "processes are left";
    EXPECT_EQ(tree.sockets(), std::vector<std::string>()) << "sockets are left";
}

void system_test::TearDown() {
    if (HasFailure()) {
        tree.kill_all();
        return;
    }
    const command_result down = tree.ctl({"down", "--timeout", forced_end_ ? "1" : "20"});
    EXPECT_EQ(down.status, forced_end_ ? timed_out : done) << down.out << down.err << tree.logs();
    expect_nothing_left(tree);
    tree.kill_all();
}

}  // namespace kze_test
