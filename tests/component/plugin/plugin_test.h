/*
 * The fixture of these tests: the real plug-in and the real base libraries in a tree of the test's
 * own, whose engine client, gateway and central configuration are the test libraries.
 */
#ifndef KZEMDLMGR_TESTS_COMPONENT_PLUGIN_PLUGIN_TEST_H
#define KZEMDLMGR_TESTS_COMPONENT_PLUGIN_PLUGIN_TEST_H

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/component/plugin/stage.h"
#include "tests/support/temp_tree.h"

// One record of a log file.
struct log_record {
    std::string level;  // the level's word
    pid_t thread;
    std::string text;
};

// Whether the records have these texts in this order; others may stand between them.
testing::AssertionResult has_in_order(const std::vector<log_record> &records,
                                      const std::vector<std::string> &texts);

// Reads a log file as it grows. One thread at a time.
class log_reader {
  public:
    explicit log_reader(std::string file) : path(std::move(file)) {}

    // All records so far.
    const std::vector<log_record> &records();
    bool has(const std::string &level, const std::string &text);
    size_t count(const std::string &text);
    // Waits until the text was logged this often; false after the deadline.
    bool await(const std::string &text, size_t times = 1);
    // The newest text of the level ERROR; empty when there is none.
    std::string last_error();
    // Leaves what is logged so far out of the records.
    void forget() { records(), known.clear(); }

  private:
    size_t read(const std::filesystem::path &from, size_t position);

    std::string path;
    size_t read_so_far = 0;
    std::vector<log_record> known;
};

class plugin_test : public testing::Test {
  protected:
    static constexpr char client_place[] = "lib/libqdccl.so";
    static constexpr char gateway_place[] = "agent_plugins/libkzethtgw.3.so";
    static constexpr char config_place[] = "lib/libkzacfgc.so";

    // Makes the tree, with all three libraries, and loads the plug-in.
    void SetUp() override;
    // Unloads the plug-in, which must be stopped, and fails the test when it left a descriptor, a
    // thread, a buffer or an object of a library.
    void TearDown() override;

    // Puts a module of the build into the tree in place of what is there.
    void install(const std::string &module, const std::string &place);
    void remove(const std::string &place);
    // A path of the tree as the plug-in names it.
    std::string expanded(const std::string &place) const;

    int init() { return init_function(); }
    int uninit() { return uninit_function(); }
    // Starts the plug-in and waits until its worker turns its loop: before that nobody could stop
    // it.
    void start();
    void stop();

    // The log of the host's thread, and that of the worker.
    log_reader &host_log() { return *host; }
    log_reader &worker_log() { return *worker; }

    kze_test::temp_tree tree;
    plugin_stage::stage &stage = plugin_stage::stage::instance();

  private:
    std::unique_ptr<log_reader> host;
    std::unique_ptr<log_reader> worker;
    void *plugin = nullptr;
    int (*init_function)() = nullptr;
    int (*uninit_function)() = nullptr;
    size_t descriptors_before = 0;
    size_t threads_before = 0;
};

// What the process has open, but for log files, which stay open for good.
size_t open_descriptors();

#endif
