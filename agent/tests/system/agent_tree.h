/* A whole agent for each test: a tree of its own, driven by its kzectl alone. */
#ifndef KZE_AGENT_TESTS_SYSTEM_AGENT_TREE_H
#define KZE_AGENT_TESTS_SYSTEM_AGENT_TREE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kze_test {

/* The exit statuses of kzectl. */
enum : int {
    done = 0,
    failed = 1,
    usage = 2,
    not_running = 3,
    timed_out = 4,
    not_there = 5,
};

struct command_result {
    int status = -1; /* of the exit; 128 and more after a signal */
    std::string out;
    std::string err;
};

/* Runs a program with nothing to read and waits for its end. */
command_result run_program(const std::vector<std::string> &command,
                           const std::vector<std::string> &environment = {});

struct tree_process {
    pid_t pid = 0;
    std::string program; /* within the tree */
};

/*
 * A copy of what was built, without configuration and without anything that ran in it. Whatever
 * runs in it when the object goes is killed. One thread at a time.
 */
class agent_tree {
  public:
    /* `below` is put between the temporary directory and the tree. */
    explicit agent_tree(const std::string &below = "tree");
    ~agent_tree();
    agent_tree(const agent_tree &) = delete;
    agent_tree &operator=(const agent_tree &) = delete;

    std::filesystem::path path(const std::string &below = "") const { return root_ / below; }
    void write(const std::string &below, const std::string &bytes) const;
    std::string read(const std::string &below) const;
    void remove(const std::string &below) const;

    /* Runs this tree's kzectl. */
    command_result ctl(const std::vector<std::string> &arguments,
                       const std::vector<std::string> &environment = {}) const;
    /* The same with --json; fails the test unless it is done, and gives what it printed. */
    nlohmann::json ask(const std::vector<std::string> &arguments) const;
    /* Fails the test unless the command is done. */
    void must(const std::vector<std::string> &arguments) const;

    void set(const std::string &module, const std::string &key, const std::string &value) const;
    /* What makes the plug-in switch its main capabilities on and report origin data. */
    void switch_on() const;

    /* Where a log ends now. */
    std::int64_t mark(const std::string &which = "worker") const;
    /* Waits for the text in a log, fails the test when it doesn't come, and gives the offset of the
     * next line. */
    std::int64_t see(const std::string &text, std::int64_t after = 0,
                     const std::string &which = "worker", int seconds = 30) const;
    bool has_logged(const std::string &text, std::int64_t after = 0,
                    const std::string &which = "worker") const;

    std::int64_t newest_record() const;
    /* Waits for a record and gives its number; 0, with a failed test, when none comes. */
    std::int64_t wait_record(const std::string &type, std::int64_t after,
                             const std::string &contains = "", int seconds = 30) const;

    /* The engine's capabilities that are on. */
    std::vector<std::string> capabilities_on() const;

    std::vector<tree_process> processes() const;
    pid_t pid_of(const std::string &program) const;
    std::vector<std::string> sockets() const;
    /* Kills what runs in the tree and returns its description. */
    std::string kill_all() const;
    /* The ends of the logs, for a failed test. */
    std::string logs() const;

  private:
    std::filesystem::path temporary_;
    std::filesystem::path root_;
};

/* Takes the agent down at the end, cleanly, and fails when anything is left of it. */
class system_test : public ::testing::Test {
  protected:
    void TearDown() override;
    /* For a test whose agent can't end cleanly. */
    void expect_forced_end() { forced_end_ = true; }

    agent_tree tree;

  private:
    bool forced_end_ = false;
};

/* Fails the test when a process or a socket of the tree is left. */
void expect_nothing_left(const agent_tree &tree);

}  // namespace kze_test

#endif
