#include "agent/ctl/core/worker_start.h"

#include <algorithm>

#include "agent/ctl/core/deadline.h"
#include "agent/ctl/core/failure.h"
#include "agent/ctl/core/log_files.h"

namespace kze::ctl {
namespace {

constexpr char plugin_name[] = "kzemdlmgr";
constexpr int progress_level = 3; /* at which the worker logs what is looked for here */
constexpr double start_seconds = 5;
constexpr int look_period_ms = 20;

bool begins(const std::string &text) {
    return text == "init kzemm_config";
}

worker_state state_after(const std::string &text) {
    if (text == "work loop start") {
        return worker_state::working;
    }
    if (text.rfind("qd start try_times: ", 0) == 0) {
        return worker_state::waiting;
    }
    return text == "kzemm_work stopped" ? worker_state::ended : worker_state::unknown;
}

/* Reads on, from the worker's first line to the one that tells what became of it. */
worker_state read_on(log_reader &reader, bool &begun) {
    worker_state state = worker_state::unknown;
    while (state == worker_state::unknown) {
        const auto line = reader.next();
        if (!line) {
            break;
        }
        const auto record = parse_log_line(line->text);
        if (record) {
            begun = begun || begins(record->text);
            state = begun ? state_after(record->text) : state;
        }
    }
    return state;
}

}  // namespace

off_t mark_worker_start() {
    return file_size(log_path("worker"));
}

worker_state wait_for_worker(const host_status &host, off_t mark) {
    const bool is_loaded = std::any_of(
        host.plugins.begin(), host.plugins.end(),
        [](const host_plugin &plugin) { return plugin.initialised && plugin.name == plugin_name; });
    if (!is_loaded || host.log_level < progress_level) {
        return worker_state::unknown;
    }
    log_reader reader(log_path("worker"), mark);
    const deadline until(start_seconds);
    bool begun = false;
    for (;;) {
        const worker_state state = read_on(reader, begun);
        if (state != worker_state::unknown || until.passed()) {
            return state;
        }
        until.pause_ms(look_period_ms);
    }
}

const char *worker_state_name(worker_state state) {
    switch (state) {
        case worker_state::working:
            return "working";
        case worker_state::waiting:
            return "waiting";
        case worker_state::ended:
            return "ended";
        case worker_state::unknown:
            break;
    }
    return "unknown";
}

std::string worker_note(worker_state state) {
    if (state == worker_state::ended) {
        throw failure(exit_failed, "the host runs, but the plug-in's worker has ended; see " +
                                       log_path("worker"));
    }
    return state == worker_state::waiting ? ", and waits for the engine" : "";
}

}  // namespace kze::ctl
