/* A running engine, and the client library with callbacks that write down what comes. */
#ifndef KZE_AGENT_TESTS_COMPONENT_ENGINE_CLIENT_FIXTURE_H
#define KZE_AGENT_TESTS_COMPONENT_ENGINE_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "agent/tests/component/engine/client_library.h"
#include "agent/tests/component/engine/engine_tree.h"

namespace engine_test {

/* Codes that the library returns of itself. */
constexpr int invalid = -1;
constexpr int offline = -8;
constexpr int timed_out = -14;

/* What callbacks have received. Safe from any thread. */
class inbox {
  public:
    void put(const std::string &item) {
        std::function<void()> react;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            items_.push_back(item);
            react = react_;
        }
        if (react) {
            react();
        }
    }
    std::vector<std::string> items() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return items_;
    }
    std::size_t count() const { return items().size(); }
    /* Waits until that many items have come. */
    bool wait_for(std::size_t items) const {
        return kze_test::eventually([&] { return count() >= items; });
    }
    /* Runs inside each callback from now on, on its thread. */
    void react_with(std::function<void()> react) {
        const std::lock_guard<std::mutex> guard(lock_);
        react_ = std::move(react);
    }

  private:
    mutable std::mutex lock_;
    std::vector<std::string> items_;
    std::function<void()> react_;
};

class EngineClient : public ::testing::Test {
  protected:
    EngineClient() { library_holder = library.get(); }
    void TearDown() override {
        if (library != nullptr) {
            library->x_client_stop();
        }
        library_holder = nullptr;
    }

    int start() {
        const qd_client_callbacks callbacks{on_offline, nullptr};
        return library->x_client_start(&callbacks, &outages);
    }
    void start_both() {
        tree.start_engine();
        ASSERT_EQ(start(), 0);
    }

    /* Callbacks; the context is an inbox. Each gives its buffer back. */
    static void on_offline(void *context) { static_cast<inbox *>(context)->put("offline"); }
    static void on_data(char *data, unsigned int len, void *context) {
        const std::string bytes(data, len);
        library_holder->x_client_free(data);
        static_cast<inbox *>(context)->put(bytes);
    }
    static void on_update(enum _engine_type type, int result, void *context) {
        static_cast<inbox *>(context)->put(std::to_string(type) + ":" + std::to_string(result));
    }
    static void on_analysis(_x_error error, char *data, unsigned int len, void *context) {
        const std::string text = data == nullptr ? "null" : std::string(data, len);
        library_holder->x_client_free(data);
        static_cast<inbox *>(context)->put(std::to_string(error) + ":" + text);
    }

    bool collect_on() {
        return library->x_client_engine_control(ENGINE_COLLECT, ENGINE_SWITCH_ON) == 0;
    }
    json status() { return tree.ask({{"op", "status"}}); }
    /* How many buffers the one client has not got back, once it has told the engine. */
    int buffers_out() {
        const json clients = status().at("clients");
        return clients.empty() ? -1 : clients.at(0).at("buffers_out").get<int>();
    }
    std::string version(enum _engine_type type) {
        char *text = nullptr;
        if (library->x_client_engine_query_version_str(type, &text) != 0) {
            return "none";
        }
        std::string version = text;
        library->x_client_free(text);
        return version;
    }
    /* Seconds. The library's own limits are three and more. */
    static constexpr double well_within_a_limit = 2.5;

    static double seconds_of(const std::function<void()> &what) {
        const auto begin = std::chrono::steady_clock::now();
        what();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

    engine_tree tree;
    std::unique_ptr<client_library> library =
        std::make_unique<client_library>(tree.path("lib/libqdccl.so"));
    inbox outages;
    inbox data;
    static inline client_library *library_holder = nullptr; /* for callbacks */
};

}  // namespace engine_test

#endif
