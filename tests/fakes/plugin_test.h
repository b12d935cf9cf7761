/*
 * The fixture of the unit tests: a clean state before each test, and nothing left after it.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_PLUGIN_TEST_H
#define KZEMDLMGR_TESTS_FAKES_PLUGIN_TEST_H

#include <gtest/gtest.h>

#include <string>

// The fakes as they are before a test, and the plug-in's singletons as their constructors make
// them.
void reset_fakes();

class plugin_test : public testing::Test {
  protected:
    void SetUp() override;
    // Fails the test when it left a timer, a thread, an endpoint, an address, a library, a value or
    // a client of central configuration open, or has not given back an engine buffer.
    void TearDown() override;

    // The agent's tree of this test, with empty folders bin, lib and config; "@" is its bin.
    std::string tree() const { return directory; }
    std::string in_tree(const std::string &path) const { return directory + "/" + path; }
    void write_file(const std::string &path, const std::string &text) const;
    // Empty for a file that isn't there.
    std::string read_file(const std::string &path) const;

    // Puts a service tool into bin that notes its arguments and ends with this status.
    void install_vrd_services(int status = 0) const;
    // What the service tool was called with so far, a line for each call.
    std::string service_calls() const;

    // Puts the message bus's library into the tree, where there is none to begin with. What it is
    // opened as is the fake.
    void install_bus() const;

    // Loads the plug-in's table of engine and gateway functions; TearDown unloads it.
    void load_libraries();
    // Makes the configuration singleton with what the fake store holds; TearDown releases it.
    void init_config();

  private:
    std::string directory;
};

#endif
