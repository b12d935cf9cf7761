/* An agent's tree of its own for each test. */
#ifndef KZE_TESTS_SUPPORT_TEMP_TREE_H
#define KZE_TESTS_SUPPORT_TEMP_TREE_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace kze_test {

/* The tree lives as long as the object; "@" is its bin/ meanwhile. One at a time in a process. */
class temp_tree {
  public:
    temp_tree() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kze_test_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        root_ = pattern;
        for (const char *folder : {"bin", "lib", "agent_plugins", "config", "var", "run"}) {
            std::filesystem::create_directory(root_ / folder);
        }
        setenv("KZE_AGENT_HOME", (root_ / "bin").c_str(), 1);
    }
    ~temp_tree() {
        unsetenv("KZE_AGENT_HOME");
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    temp_tree(const temp_tree &) = delete;
    temp_tree &operator=(const temp_tree &) = delete;

    std::filesystem::path path(const std::string &below) const { return root_ / below; }

    void write(const std::string &below, const std::string &text) const {
        std::filesystem::create_directories(path(below).parent_path());
        std::ofstream(path(below), std::ios::binary) << text;
    }

    /* The whole file; empty when there is none. */
    std::string read(const std::string &below) const {
        std::ifstream file(path(below), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

  private:
    std::filesystem::path root_;
};

}  // namespace kze_test

#endif
