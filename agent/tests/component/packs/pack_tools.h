/* What the tests of packs share: kzectl in an otherwise empty tree, and files. */
#ifndef KZE_AGENT_TESTS_COMPONENT_PACKS_PACK_TOOLS_H
#define KZE_AGENT_TESTS_COMPONENT_PACKS_PACK_TOOLS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/temp_tree.h"

namespace kze_test {

struct finished {
    int status = -1;
    std::vector<std::string> lines;
    std::string errors;
};

/* Runs a program to its end. */
inline finished run(const std::vector<std::string> &command) {
    child_process child(command);
    finished result;
    for (std::string line = child.read_line(); !line.empty(); line = child.read_line()) {
        result.lines.push_back(line);
    }
    result.errors = child.read_errors();
    const int status = child.wait();
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

/* A tree with no agent in it, and the files of a user beside it. */
class packs_test : public ::testing::Test {
  protected:
    packs_test() {
        tree.write("bin/kze_agent", "");
        std::filesystem::create_directory(tree.path("made"));
    }

    finished ctl(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {KZE_KZECTL, "--tree", tree.path("").string()});
        return run(arguments);
    }
    /* With --json; what it printed, an object a line. */
    std::vector<nlohmann::json> ask(std::vector<std::string> arguments, int status = 0) const {
        arguments.emplace_back("--json");
        const finished result = ctl(arguments);
        EXPECT_EQ(result.status, status) << result.errors;
        std::vector<nlohmann::json> values;
        for (const std::string &line : result.lines) {
            values.push_back(nlohmann::json::parse(line));
        }
        return values;
    }
    /* Makes a pack of a file's text and gives its path. */
    std::string make(const std::vector<std::string> &form, const std::string &rules,
                     const std::vector<std::string> &options = {}) const {
        tree.write("rules.txt", rules);
        std::vector<std::string> arguments = {"pack", "make"};
        arguments.insert(arguments.end(), form.begin(), form.end());
        arguments.insert(arguments.end(),
                         {tree.path("rules.txt").string(), "-o", tree.path("made").string()});
        arguments.insert(arguments.end(), options.begin(), options.end());
        const finished result = ctl(arguments);
        EXPECT_EQ(result.status, 0) << result.errors;
        return result.lines.empty() ? std::string() : result.lines.back();
    }
    std::vector<std::string> files_in(const std::string &below) const {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(tree.path(below))) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    const temp_tree tree;
};

}  // namespace kze_test

#endif
