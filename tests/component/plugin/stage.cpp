#include "tests/component/plugin/stage.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace plugin_stage {
namespace {

constexpr std::chrono::seconds deadline{20};

}  // namespace

stage &stage::instance() {
    static auto *const s_instance = new stage;  // outlives every thread that may still call
    return *s_instance;
}

void stage::reset() {
    const std::lock_guard<std::mutex> lock(mutex);
    config.clear();
    config_balance = 0;
    called.clear();
    start_result = 0;
    subscribers.clear();
    buffers.clear();
    sends.clear();
}

void stage::set_config(const std::string &module, const std::string &key, const std::string &text) {
    const std::lock_guard<std::mutex> lock(mutex);
    config[{module, key}] = text;
}

void stage::client_start_returns(int result) {
    const std::lock_guard<std::mutex> lock(mutex);
    start_result = result;
}

std::vector<std::string> stage::calls() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return called;
}

size_t stage::count(const std::string &call) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return static_cast<size_t>(std::count(called.begin(), called.end(), call));
}

bool stage::await(const std::string &call, size_t times) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, deadline, [&] {
        return static_cast<size_t>(std::count(called.begin(), called.end(), call)) >= times;
    });
}

void stage::forget_calls() {
    const std::lock_guard<std::mutex> lock(mutex);
    called.clear();
    sends.clear();
}

bool stage::deliver(data_kind kind, const std::string &data) {
    std::pair<qd_data_cb, void *> subscriber = {nullptr, nullptr};
    const auto buffer = static_cast<char *>(malloc(data.size()));
    memcpy(buffer, data.data(), data.size());
    {
        const std::lock_guard<std::mutex> lock(mutex);
        subscriber = subscribers[kind];
        buffers.insert(buffer);
    }
    const auto call = [&] {
        subscriber.first(buffer, static_cast<unsigned int>(data.size()), subscriber.second);
    };
    if (subscriber.first == nullptr || !run_on_client_thread(call)) {
        client_free(buffer);
        return false;
    }
    return true;
}

bool stage::go_offline() {
    return run_on_client_thread([this] { offline_cb(offline_context); });
}

pid_t stage::client_thread() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return client_id;
}

size_t stage::buffers_out() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return buffers.size();
}

std::vector<gateway_send> stage::gateway_sends() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return sends;
}

int stage::config_objects() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return config_balance;
}

// A start while the client runs is the one after an outage; it only brings the newest callback.
int stage::client_start(const qd_client_callbacks *callbacks, void *context) {
    note("x_client_start");
    std::unique_lock<std::mutex> lock(mutex);
    if (start_result != 0) {
        return start_result;
    }
    offline_cb = callbacks->offline_cb;
    offline_context = context;
    if (!client.joinable()) {
        client_ends = false;
        client = std::thread([this] { client_routine(); });
        changed.wait(lock, [this] { return client_id != 0; });
    }
    return 0;
}

int stage::client_stop() {
    note("x_client_stop");
    {
        const std::lock_guard<std::mutex> lock(mutex);
        client_ends = true;
    }
    changed.notify_all();
    if (client.joinable()) {
        client.join();
    }
    return 0;
}

void stage::client_routine() {
    std::unique_lock<std::mutex> lock(mutex);
    client_id = gettid();
    changed.notify_all();
    for (;;) {
        changed.wait(lock, [this] { return client_ends || !jobs.empty(); });
        if (jobs.empty()) {
            break;
        }
        const std::function<void()> job = std::move(jobs.front());
        jobs.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
    client_id = 0;
}

bool stage::run_on_client_thread(std::function<void()> job) {
    bool done = false;
    std::unique_lock<std::mutex> lock(mutex);
    if (client_id == 0 || client_ends) {
        return false;
    }
    jobs.emplace_back([&] {
        job();
        const std::lock_guard<std::mutex> ended(mutex);
        done = true;
        changed.notify_all();
    });
    changed.notify_all();
    changed.wait(lock, [&] { return done; });
    return true;
}

void stage::client_free(void *buffer) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (buffer != nullptr && buffers.erase(buffer) == 0) {
        abort();  // not the engine's, or given back before
    }
    free(buffer);
}

void stage::subscribe(data_kind kind, const std::string &call, qd_data_cb callback, void *context) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        subscribers[kind] = {callback, context};
    }
    note(call);
}

void stage::left_behind_by_design(void *memory) {
    static auto *const left = new std::vector<void *>;
    left->push_back(memory);
}

void stage::note(const std::string &call) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        called.push_back(call);
    }
    changed.notify_all();
}

int stage::gateway_take(int type, const char *data, unsigned int len) {
    const std::lock_guard<std::mutex> lock(mutex);
    sends.push_back({type, std::string(data, len), gettid()});
    return 0;
}

const std::string *stage::config_text(const std::string &module, const std::string &key) const {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = config.find({module, key});
    return found == config.end() ? nullptr : &found->second;
}

void stage::count_config_objects(int more) {
    const std::lock_guard<std::mutex> lock(mutex);
    config_balance += more;
}

}  // namespace plugin_stage
