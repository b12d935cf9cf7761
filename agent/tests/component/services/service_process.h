/* A service as a process of the test, in a tree of the test's own. */
#ifndef KZE_AGENT_TESTS_COMPONENT_SERVICES_SERVICE_PROCESS_H
#define KZE_AGENT_TESTS_COMPONENT_SERVICES_SERVICE_PROCESS_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/common/control.h"
#include "tests/support/child_process.h"
#include "tests/support/ipc_test.h"
#include "tests/support/process_state.h"

namespace kze_test {

/* Starts the service in bin/<name> at its endpoint <name>, and ends it with SIGTERM: the test fails
 * unless it then leaves with status 0. */
class service_test : public ipc_fixture {
  protected:
    explicit service_test(std::string name) : name_(std::move(name)) {}

    void SetUp() override { start(); }
    void TearDown() override {
        if (process_ != nullptr) {
            process_->signal(SIGTERM);
            const int status = process_->wait();
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
            process_.reset();
        }
        EXPECT_FALSE(std::filesystem::exists(tree.path("run/" + name_ + ".sock")));
    }

    void start() {
        process_ = std::make_unique<child_process>(
            std::vector<std::string>{std::string(KZE_TREE "/bin/") + name_});
        ASSERT_TRUE(eventually([this] { return control({{"op", "status"}}).value("ok", false); }));
    }
    void kill_service() {
        process_->signal(SIGKILL);
        process_->wait();
        process_.reset();
    }
    nlohmann::json control(const nlohmann::json &request) const {
        return kze::control_call(name_, request, 5).answer.value_or(nlohmann::json::object());
    }
    nlohmann::json status() const { return control({{"op", "status"}}); }
    std::string service_log() const { return tree.read("var/log/" + name_ + "/" + name_ + ".log"); }

    const std::string name_;
    std::unique_ptr<child_process> process_;
};

}  // namespace kze_test

#endif
