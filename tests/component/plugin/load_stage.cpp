#include "tests/component/plugin/load_stage.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace load_stage {
namespace {

constexpr std::chrono::seconds deadline{60};
constexpr std::chrono::milliseconds callback_delay{50};
constexpr std::chrono::milliseconds delivery_pause{1};

}  // namespace

// FNV-1a
std::uint64_t digest_of(std::string_view bytes) {
    std::uint64_t digest = 14695981039346656037U;
    for (const char byte : bytes) {
        digest = (digest ^ static_cast<unsigned char>(byte)) * 1099511628211U;
    }
    return digest;
}

engine &engine::instance() {
    static auto *const s_instance = new engine;  // outlives every thread that may still call
    return *s_instance;
}

void engine::reset(std::size_t room) {
    const std::lock_guard<std::mutex> lock(mutex);
    call_ms = 0;
    buffers = 0;
    for (auto &each : sends) {
        each = 0;
    }
    delivered = 0;
    held = false;
    arrived.clear();
    arrived.reserve(room);
    event.clear();
}

void engine::hold_calls() {
    const std::lock_guard<std::mutex> lock(mutex);
    held = true;
}

void engine::let_calls_go() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        held = false;
    }
    changed.notify_all();
}

bool engine::await_call() {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, deadline, [this] { return in_call; });
}

std::vector<arrival> engine::arrivals() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return arrived;
}

std::size_t engine::arrival_count() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return arrived.size();
}

bool engine::await_arrivals(std::size_t count) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, deadline, [&] { return arrived.size() >= count; });
}

std::size_t engine::callbacks_due() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return due;
}

// A start while the engine runs is the one after an outage.
void engine::start() {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!thread.joinable()) {
        ends = false;
        thread = std::thread([this] { routine(); });
    }
}

// Callbacks that are still due are dropped: none may come after this.
void engine::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ends = true;
        due -= jobs.size();
        jobs.clear();
    }
    changed.notify_all();
    for (std::thread *const each : {&thread, &deliverer}) {
        if (each->joinable()) {
            each->join();
        }
    }
}

void engine::deliver_again_and_again(std::string credible_event) {
    const std::lock_guard<std::mutex> lock(mutex);
    event = std::move(credible_event);
}

void engine::subscribe_credible(qd_data_cb callback, void *context) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!event.empty() && !deliverer.joinable()) {
        deliverer = std::thread([this, callback, context] { deliver_events(callback, context); });
    }
}

void engine::deliver_events(qd_data_cb callback, void *context) {
    std::unique_lock<std::mutex> lock(mutex);
    while (!changed.wait_for(lock, delivery_pause, [this] { return ends; })) {
        char *const buffer = new_buffer(event.size());
        memcpy(buffer, event.data(), event.size());
        const auto size = static_cast<unsigned int>(event.size());
        lock.unlock();
        callback(buffer, size, context);
        ++delivered;
        lock.lock();
    }
}

void engine::routine() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return ends || !jobs.empty(); });
        if (ends) {
            return;
        }
        if (changed.wait_until(lock, jobs.front().due, [this] { return ends; })) {
            return;
        }
        const std::function<void()> run = std::move(jobs.front().run);
        jobs.pop_front();
        lock.unlock();
        run();
        lock.lock();
        --due;
    }
}

int engine::call(call_kind kind, const char *data, unsigned int len) {
    const std::uint64_t digest = digest_of({data, len});
    {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.push_back({kind, digest, len});
        in_call = true;
        changed.notify_all();
        changed.wait(lock, [this] { return !held; });
    }
    if (const int ms = call_ms; ms != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));  // the engine's own time
    }
    const std::lock_guard<std::mutex> lock(mutex);
    in_call = false;
    return 0;
}

void engine::call_back(std::function<void()> what) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        jobs.push_back({std::chrono::steady_clock::now() + callback_delay, std::move(what)});
        ++due;
    }
    changed.notify_all();
}

char *engine::new_buffer(std::size_t size) {
    ++buffers;
    return static_cast<char *>(calloc(size, 1));
}

void engine::free_buffer(void *buffer) {
    buffers -= buffer != nullptr ? 1 : 0;
    free(buffer);
}

int engine::gateway_take(int type) {
    ++sends[static_cast<std::size_t>(type)];
    return 0;
}

}  // namespace load_stage
