// An agent's tree of a test's own.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

inline std::string content_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void write_content(const std::string &path, const std::string &text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

inline std::vector<std::string> lines_of(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

inline std::set<std::string> names_in(const std::string &directory) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

// What the process has open, but for log files, which stay open on purpose.
inline std::multiset<std::string> open_descriptors() {
    std::multiset<std::string> targets;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
        if (!gone && target.find(".log") == std::string::npos &&
            target.find("/proc/") == std::string::npos)
            targets.insert(target);
    }
    return targets;
}

// A tree below a new temporary directory, with KZE_AGENT_HOME set to its bin/. Its end asserts that
// the test has left no descriptor open, and deletes the directory.
class TemporaryTree : public ::testing::Test {
  protected:
    TemporaryTree() {
        char name[] = "/tmp/kze_test_XXXXXX";
        root_ = mkdtemp(name);
        std::filesystem::create_directory(root_ + "/bin");
        std::filesystem::create_directory(root_ + "/config");
        setenv("KZE_AGENT_HOME", (root_ + "/bin").c_str(), 1);
        open_before_ = open_descriptors();
    }

    ~TemporaryTree() override {
        EXPECT_EQ(open_descriptors(), open_before_);
        unsetenv("KZE_AGENT_HOME");
        std::filesystem::remove_all(root_);
    }

    std::string path(const std::string &name) const { return root_ + "/" + name; }

  private:
    std::string root_;
    std::multiset<std::string> open_before_;
};
