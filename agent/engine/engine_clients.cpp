#include "agent/engine/engine_clients.h"

#include <sys/random.h>

#include <algorithm>

#include "vrdbase.h"

namespace kze::engine {
namespace {

/* A client sends a sign of life each second. */
constexpr auto silent_limit = std::chrono::seconds(10);
/* Well below the time limit with which clients ask for the next event. */
constexpr auto waiting_limit = std::chrono::seconds(20);

/* Random, so that a client of an engine that has died isn't taken for one of this engine. */
std::uint32_t random_number() {
    std::uint32_t number = 0;
    while (number == 0) {
        if (::getrandom(&number, sizeof(number), 0) != static_cast<ssize_t>(sizeof(number))) {
            number = 0;
        }
    }
    return number;
}

}  // namespace

engine_clients::engine_clients(vrd_ipc_st *ipc) : ipc_(ipc) {}

std::uint32_t engine_clients::add(pid_t process, const std::string &name) {
    const std::lock_guard<std::mutex> guard(lock_);
    for (auto at = clients_.begin(); at != clients_.end();) {
        at = at->second.process == process ? clients_.erase(at) : std::next(at);
    }
    std::uint32_t number = random_number();
    while (clients_.count(number) != 0) {
        number = random_number();
    }
    client_entry &client = clients_[number];
    client.process = process;
    client.name = name;
    client.last_heard = clock::now();
    return number;
}

bool engine_clients::remove(std::uint32_t client) {
    const std::lock_guard<std::mutex> guard(lock_);
    return clients_.erase(client) != 0;
}

bool engine_clients::knows(std::uint32_t client) {
    const std::lock_guard<std::mutex> guard(lock_);
    return find(client) != nullptr;
}

bool engine_clients::heard(std::uint32_t client, int buffers) {
    const std::lock_guard<std::mutex> guard(lock_);
    client_entry *entry = find(client);
    if (entry == nullptr) {
        return false;
    }
    entry->last_heard = clock::now();
    entry->buffers = buffers;
    return true;
}

bool engine_clients::wait_next(std::uint32_t client, const vrd_addr_st *addr,
                               unsigned int request_id) {
    const std::lock_guard<std::mutex> guard(lock_);
    client_entry *entry = find(client);
    if (entry == nullptr) {
        return false;
    }
    entry->waiting = waiting_request{addr, request_id, clock::now()};
    answer_waiting(*entry);
    return true;
}

bool engine_clients::subscribe(std::uint32_t client, event_kind kind, bool on) {
    const std::lock_guard<std::mutex> guard(lock_);
    client_entry *entry = find(client);
    if (entry == nullptr) {
        return false;
    }
    if (on) {
        entry->subscriptions.insert(kind);
    } else {
        entry->subscriptions.erase(kind);
    }
    return true;
}

bool engine_clients::subscribe_origin(std::uint32_t client, unsigned int cycle, bool *starts) {
    const std::lock_guard<std::mutex> guard(lock_);
    client_entry *entry = find(client);
    if (entry == nullptr) {
        return false;
    }
    *starts = cycle != 0 && entry->origin_cycle != cycle;
    if (*starts) {
        entry->origin_due = clock::now() + std::chrono::seconds(cycle);
    }
    entry->origin_cycle = cycle;
    return true;
}

std::vector<std::uint32_t> engine_clients::take_due_origin(clock::time_point now) {
    std::vector<std::uint32_t> due;
    const std::lock_guard<std::mutex> guard(lock_);
    for (auto &[number, client] : clients_) {
        if (client.origin_cycle != 0 && client.origin_due <= now) {
            const auto cycle = std::chrono::seconds(client.origin_cycle);
            const auto missed = (now - client.origin_due) / cycle;
            client.origin_due += cycle * (missed + 1);
            due.push_back(number);
        }
    }
    return due;
}

std::vector<std::uint32_t> engine_clients::origin_subscribers() {
    std::vector<std::uint32_t> subscribers;
    const std::lock_guard<std::mutex> guard(lock_);
    for (const auto &[number, client] : clients_) {
        if (client.origin_cycle != 0) {
            subscribers.push_back(number);
        }
    }
    return subscribers;
}

engine_clients::pushed engine_clients::push(event_kind kind, std::string_view payload) {
    record event;
    event.what = static_cast<std::uint32_t>(kind);
    event.payload = payload;
    const auto bytes = std::make_shared<const std::string>(encode_record(event));
    pushed counts;
    const std::lock_guard<std::mutex> guard(lock_);
    for (auto &[number, client] : clients_) {
        if (client.subscriptions.count(kind) != 0) {
            enqueue(number, client, bytes, counts);
        }
    }
    return counts;
}

engine_clients::pushed engine_clients::push_to(const std::vector<std::uint32_t> &clients,
                                               const record &event) {
    const auto bytes = std::make_shared<const std::string>(encode_record(event));
    pushed counts;
    const std::lock_guard<std::mutex> guard(lock_);
    for (const std::uint32_t number : clients) {
        if (client_entry *client = find(number); client != nullptr) {
            enqueue(number, *client, bytes, counts);
        }
    }
    return counts;
}

void engine_clients::set_silent(bool silent) {
    const std::lock_guard<std::mutex> guard(lock_);
    silent_ = silent;
}

void engine_clients::tick(clock::time_point now) {
    const std::lock_guard<std::mutex> guard(lock_);
    for (auto at = clients_.begin(); at != clients_.end();) {
        client_entry &client = at->second;
        if (now - client.last_heard > silent_limit) {
            kze_log(2, "client %u, process %d, is gone", at->first, client.process);
            at = clients_.erase(at);
            continue;
        }
        answer_waiting(client);
        if (client.waiting && now - client.waiting->since > waiting_limit) {
            const std::string nothing = encode_record({});
            vrd_ipc_response(ipc_, client.waiting->addr, client.waiting->id, command_next,
                             nothing.data(), static_cast<unsigned int>(nothing.size()));
            client.waiting.reset();
        }
        ++at;
    }
}

nlohmann::json engine_clients::describe() {
    nlohmann::json out = nlohmann::json::array();
    const std::lock_guard<std::mutex> guard(lock_);
    for (const auto &[number, client] : clients_) {
        nlohmann::json subscriptions = nlohmann::json::array();
        for (const event_kind kind : client.subscriptions) {
            subscriptions.push_back(event_name(kind));
        }
        if (client.origin_cycle != 0) {
            subscriptions.push_back(event_name(event_kind::origin));
        }
        out.push_back({{"id", number},
                       {"pid", client.process},
                       {"name", client.name},
                       {"subscriptions", subscriptions},
                       {"origin_cycle_s", client.origin_cycle},
                       {"events_waiting", client.events.size()},
                       {"events_sent", client.sent},
                       {"events_dropped", client.dropped},
                       {"buffers_out", client.buffers}});
    }
    return out;
}

/* The caller holds lock_, here and below. */
engine_clients::client_entry *engine_clients::find(std::uint32_t client) {
    const auto found = clients_.find(client);
    return found == clients_.end() ? nullptr : &found->second;
}

void engine_clients::enqueue(std::uint32_t number, client_entry &client, const event_bytes &event,
                             pushed &counts) {
    ++counts.meant;
    const std::size_t cost = event->size() + event_overhead;
    if (client.queued_bytes + cost > queue_limit) {
        if (client.dropped++ == 0) {
            kze_log(1, "client %u fetches nothing, its events are dropped from now on", number);
        }
        return;
    }
    ++counts.taken;
    client.queued_bytes += cost;
    client.events.push_back(event);
    answer_waiting(client);
}

void engine_clients::answer_waiting(client_entry &client) {
    if (silent_ || !client.waiting || client.events.empty()) {
        return;
    }
    const std::string &event = *client.events.front();
    const int result =
        vrd_ipc_response(ipc_, client.waiting->addr, client.waiting->id, command_next, event.data(),
                         static_cast<unsigned int>(event.size()));
    if (result == VRD_IPC_E_QUEUE_FULL || result == VRD_IPC_E_NO_MEMORY) {
        return; /* still to be answered; tried again each second */
    }
    client.waiting.reset();
    if (result != 0) {
        kze_log(2, "process %d can't be answered: %s", client.process, vrd_ipc_strerror(result));
        return;
    }
    client.queued_bytes -= event.size() + event_overhead;
    ++client.sent;
    client.events.pop_front();
}

}  // namespace kze::engine
