/* A tree with the engine's programs, and the engine as a process of the test. */
#ifndef KZE_AGENT_TESTS_COMPONENT_ENGINE_ENGINE_TREE_H
#define KZE_AGENT_TESTS_COMPONENT_ENGINE_ENGINE_TREE_H

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>

#include "agent/common/control.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_tree.h"

extern char **environ;

namespace engine_test {

using nlohmann::json;

/* The tree and at most one engine in it, which goes with the object. */
class engine_tree {
  public:
    engine_tree() {
        std::filesystem::remove(tree_.path("lib"));
        std::filesystem::create_symlink(KZE_TREE "/lib", tree_.path("lib"));
        std::filesystem::create_directories(tree_.path("qd_agent"));
        std::filesystem::create_symlink(KZE_TREE "/qd_agent/bin", tree_.path("qd_agent/bin"));
        std::filesystem::create_symlink(KZE_TREE "/bin/vrd_services",
                                        tree_.path("bin/vrd_services"));
    }
    ~engine_tree() {
        if (engine_ != 0) {
            kill_engine(SIGKILL);
        }
    }

    const kze_test::temp_tree &files() const { return tree_; }
    std::string path(const std::string &below) const { return tree_.path(below).string(); }

    /* Starts the engine and returns when it answers. */
    void start_engine() {
        const std::string program = path("qd_agent/bin/qd_agent");
        char *arguments[] = {const_cast<char *>(program.c_str()), nullptr};
        if (posix_spawn(&engine_, program.c_str(), nullptr, nullptr, arguments, environ) != 0) {
            throw std::runtime_error("no engine");
        }
        if (!kze_test::eventually([this] { return ask({{"op", "status"}}).value("ok", false); })) {
            throw std::runtime_error("the engine doesn't answer: " + last_error_);
        }
    }
    pid_t engine() const { return engine_; }

    /* Waits for the engine's end; its status as waitpid gives it. */
    int wait_for_engine() {
        int status = 0;
        waitpid(engine_, &status, 0);
        engine_ = 0;
        return status;
    }
    int kill_engine(int signal) {
        kill(engine_, signal);
        return wait_for_engine();
    }

    /* The engine's answer to a control request; an empty object when there is none. */
    json ask(const json &request) {
        kze::control_result result = kze::control_call("qd_agent", request, 5);
        last_error_ = result.error;
        return result.answer.value_or(json::object());
    }
    /* Whether the engine does what is asked. */
    bool order(const json &request) {
        const json answer = ask(request);
        last_error_ += answer.value("error", "");
        return answer.value("ok", false);
    }
    const std::string &last_error() const { return last_error_; }

    /* Lets the engine push the bytes. */
    json push(const std::string &kind, const std::string &bytes) {
        tree_.write("pushed.bin", bytes);
        return ask({{"op", "push"}, {"kind", kind}, {"file", path("pushed.bin")}});
    }

  private:
    kze_test::temp_tree tree_;
    pid_t engine_ = 0;
    std::string last_error_;
};

}  // namespace engine_test

#endif
