#include "agent/host/host.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <memory>

#include "agent/common/json_text.h"
#include "agent/common/tree.h"
#include "agent/host/log_level.h"
#include "agent/host/process_figures.h"
#include "agent/host/service_manager.h"
#include "kzautil.h"
#include "vrdbase.h"

namespace kze::host {
namespace {

using nlohmann::json;

constexpr char endpoint[] = "agt_host";
constexpr char settings_path[] = "@/../config/agent.ini";

sigset_t awaited_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    return signals;
}

/* Between fork and exec: a program that a plug-in starts must be able to take its signals. */
void unblock_in_child() {
    const sigset_t signals = awaited_signals();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

json set_log_level(const json &request) {
    const std::optional<std::int64_t> level = number_in(request.value("level", json()), 0, 4);
    if (!level) {
        return control_error("\"level\" is a number from 0 to 4");
    }
    const std::string problem = change_log_level(static_cast<int>(*level));
    return problem.empty() ? json{{"ok", true}} : control_error(problem);
}

std::string configured_plugins() {
    const std::string path = tree_path(settings_path);
    const std::unique_ptr<void, decltype(&kze_ini_file_free)> ini(kze_ini_file_load(path.c_str()),
                                                                  &kze_ini_file_free);
    if (ini == nullptr) {
        kze_log(1, "%s can't be read, no plug-in is loaded", path.c_str());
        return {};
    }
    const char *list = kze_ini_file_get(ini.get(), "plugins", "load");
    return list == nullptr ? "" : list;
}

}  // namespace

host::host() : started_(std::chrono::steady_clock::now()) {}

bool host::block_signals() {
    const sigset_t signals = awaited_signals();
    return pthread_sigmask(SIG_BLOCK, &signals, nullptr) == 0 &&
           pthread_atfork(nullptr, nullptr, unblock_in_child) == 0;
}

bool host::open_descriptors() {
    const sigset_t signals = awaited_signals();
    signals_.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    orders_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!signals_.valid() || !orders_.valid()) {
        kze_log(0, "the host has no descriptors: %s", std::strerror(errno));
        return false;
    }
    return true;
}

bool host::run() {
    load_plugins();
    if (!open_descriptors() ||
        !control_.start(endpoint, [this](const json &request, const control_ticket &ticket) {
            return answer(request, ticket);
        })) {
        return false;
    }
    kze_log(3, "host started, process %d", getpid());
    start_plugins();
    tell_ready();
    while (serve_once()) {
    }
    kze_log(3, "host stops");
    tell_stopping();
    refuse_reloads();
    stop_plugins();
    unload_plugins();
    control_.stop();
    kze_log(3, "host stopped");
    return true;
}

void host::load_plugins() {
    for (std::string &name : plugin_names(configured_plugins())) {
        plugins_.emplace_back(std::move(name));
    }
    publish(false);
}

void host::publish(bool ready) {
    std::vector<plugin_status> states;
    for (const plugin &known : plugins_) {
        states.push_back(known.status());
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    published_ = std::move(states);
    ready_ = ready;
}

void host::start_plugins() {
    for (plugin &known : plugins_) {
        known.start();
        publish(false);
    }
    publish(true);
}

void host::stop_plugins() {
    for (auto known = plugins_.rbegin(); known != plugins_.rend(); ++known) {
        known->stop();
        publish(false);
    }
}

void host::unload_plugins() {
    for (auto known = plugins_.rbegin(); known != plugins_.rend(); ++known) {
        known->unload();
    }
    publish(false);
}

/* Waits for a signal or an order and obeys. False when it is the last. */
bool host::serve_once() {
    struct pollfd awaited[] = {{signals_.get(), POLLIN, 0}, {orders_.get(), POLLIN, 0}};
    if (poll(awaited, 2, -1) < 0 && errno != EINTR) {
        kze_log(0, "the host can't wait: %s", std::strerror(errno));
        return false;
    }
    return take_signal() && take_orders();
}

bool host::take_signal() {
    struct signalfd_siginfo taken {};
    if (read(signals_.get(), &taken, sizeof(taken)) != sizeof(taken)) {
        return true;
    }
    const int number = static_cast<int>(taken.ssi_signo);
    kze_log(3, "host got %s from process %u", strsignal(number), taken.ssi_pid);
    if (number == SIGHUP) {
        error_output_reload_level();
        return true;
    }
    return false;
}

bool host::take_orders() {
    std::uint64_t count = 0;
    if (read(orders_.get(), &count, sizeof(count)) != sizeof(count)) {
        return true;
    }
    std::vector<control_ticket> waiting;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (stop_ordered_) {
            return false;
        }
        waiting.swap(reloads_);
    }
    if (!waiting.empty()) {
        reload(waiting);
    }
    return true;
}

/* One reload serves all that wait for one. */
void host::reload(const std::vector<control_ticket> &waiting) {
    kze_log(3, "host reloads its plug-ins");
    stop_plugins();
    start_plugins();
    const json answer = status();
    for (const control_ticket &ticket : waiting) {
        ticket.answer(answer);
    }
}

void host::refuse_reloads() {
    std::vector<control_ticket> waiting;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        waiting.swap(reloads_);
    }
    for (const control_ticket &ticket : waiting) {
        ticket.answer(control_error("the host stops"));
    }
}

void host::wake() const {
    const std::uint64_t one = 1;
    if (write(orders_.get(), &one, sizeof(one)) != sizeof(one)) {
        kze_log(2, "host: an order may wait: %s", std::strerror(errno));
    }
}

std::optional<json> host::answer(const json &request, const control_ticket &ticket) {
    const auto op = request.find("op");
    if (op == request.end() || !op->is_string()) {
        return control_error("a request has a text \"op\"");
    }
    if (*op == "status") {
        return status();
    }
    if (*op == "log-level") {
        return set_log_level(request);
    }
    if (*op == "reload") {
        return order_reload(ticket);
    }
    if (*op == "stop") {
        order_stop(ticket);
        return std::nullopt;
    }
    return control_error("no request \"" + op->get<std::string>() +
                         "\"; there are status, log-level, reload and stop");
}

json host::status() {
    const process_figures figures = own_figures();
    json plugins = json::array();
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const plugin_status &known : published_) {
        plugins.push_back({{"name", known.name},
                           {"loaded", known.loaded},
                           {"init_result", known.init_result},
                           {"state", known.state()},
                           {"problem", known.problem}});
    }
    const auto uptime = std::chrono::steady_clock::now() - started_;
    return {{"ok", true},
            {"pid", getpid()},
            {"ready", ready_},
            {"uptime_s", std::chrono::duration_cast<std::chrono::seconds>(uptime).count()},
            {"plugins", plugins},
            {"log_level", error_output_level()},
            {"rss_kb", figures.rss_kb},
            {"threads", figures.threads},
            {"descriptors", figures.descriptors}};
}

std::optional<json> host::order_reload(const control_ticket &ticket) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return control_error("the host stops");
        }
        reloads_.push_back(ticket);
    }
    wake();
    return std::nullopt;
}

/* Answers before the main thread learns of it, which then closes the endpoint. */
void host::order_stop(const control_ticket &ticket) {
    ticket.answer({{"ok", true}});
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stop_ordered_ = true;
    }
    wake();
}

}  // namespace kze::host
