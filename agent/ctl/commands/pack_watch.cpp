/* kzectl pack watch and wait: what becomes of each pack, from the directory and the engine. */
#include <fnmatch.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/ctl/commands/pack_commands.h"
#include "agent/ctl/core/deadline.h"
#include "agent/ctl/core/processes.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr int look_period_ms = 200;
constexpr int looks_between_host_checks = 5;

struct watch_options {
    bool until_empty = false;
    bool from_now = false;
    double after = 0; /* seconds since 1970 */
    double timeout = 0;
};

struct wait_options {
    std::string pack;
    std::string fate;
    watch_options watch;
};

/* What speaks against a word for a fate. */
std::string fate_problem(const std::string &text) {
    std::string known;
    for (const char *each : fate_texts) {
        if (text == each) {
            return "";
        }
        known += std::string(known.empty() ? "" : ", ") + each;
    }
    return "\"" + printable(text) + "\" is no fate; there are " + known;
}

look look_of(fate what) {
    switch (what) {
        case fate::applied:
            return look::good;
        case fate::refused_dropped:
        case fate::unpack_failed:
            return look::bad;
        case fate::obsolete:
        case fate::too_old:
        case fate::replaced:
        case fate::refused_kept:
        case fate::not_confirmed:
        case fate::gone:
            return look::warning;
        case fate::fresh:
        case fate::in_work:
        case fate::renamed:
            return look::accent;
        case fate::waiting:
            break;
    }
    return look::faint;
}

void print(const pack_event &event, const output &out) {
    const std::string time = log_time(event.time_us);
    if (out.json()) {
        json value = {{"time", time},
                      {"pack", event.pack},
                      {"kind", rule_kind_name(event.kind)},
                      {"fate", fate_text(event.what)},
                      {"reason", event.reason}};
        if (event.engine) {
            value["engine"] = *event.engine;
        }
        if (event.code) {
            value["code"] = *event.code;
        }
        out.json_line(value);
        return;
    }
    constexpr std::size_t fate_width = 19;
    const std::string fate_name = fate_text(event.what);
    const std::string pack = event.pack.empty() ? std::string(rule_kind_name(event.kind)) + " packs"
                                                : printable(event.pack);
    std::string reason = printable(event.reason);
    if (event.what == fate::applied && event.engine) {
        reason += (reason.empty() ? "" : "; ") + std::string("the engine's version now is ") +
                  printable(*event.engine);
    }
    out.line(out.paint(look::faint, time.substr(11, 12)) + "  " +
             out.paint(look_of(event.what), fate_name) +
             std::string(fate_width - std::min(fate_width, fate_name.size()) + 2, ' ') +
             out.paint(look::strong, pack) + (reason.empty() ? "" : "  " + reason));
}

/* A child of the host that has yet to become tar looks like the host, whatever its number. */
bool host_runs() {
    return !tree_processes("bin/kze_agent").empty();
}

/* What tar says against a pack. */
std::string unpack_problem(const std::string &pack) {
    std::string problem;
    pack_members(rule_directory_path() + "/" + pack, problem);
    return problem;
}

std::int64_t after_us(const watch_options &options) {
    const double now = static_cast<double>(std::chrono::system_clock::now().time_since_epoch() /
                                           std::chrono::microseconds(1));
    return static_cast<std::int64_t>(options.from_now ? now : options.after * 1e6);
}

/*
 * Looks until `is_done`, which gets what each look brings, says so. Throws failure when the time is
 * up or the host isn't running any more.
 */
void follow(
    const watch_options &options,
    const std::function<bool(const std::vector<pack_event> &, const pack_follower &)> &is_done) {
    const deadline until(options.timeout > 0 ? options.timeout : -1);
    const bool was_running = host_runs();
    pack_follower eyes(after_us(options), unpack_problem);
    for (int looks = 0;; ++looks) {
        if (is_done(eyes.look(look_at_packs()), eyes)) {
            return;
        }
        if (looks % looks_between_host_checks == 0 && !host_runs()) {
            if (is_done(eyes.look(look_at_packs()), eyes)) {
                return;
            }
            throw failure(exit_not_running,
                          was_running ? "the host has ended"
                                      : "the host isn't running; start it with \"kzectl up\"");
        }
        if (until.passed()) {
            throw failure(exit_timed_out, "the time is up");
        }
        until.pause_ms(look_period_ms);
    }
}

exit_status watch(const watch_options &options, const output &out) {
    follow(options, [&](const std::vector<pack_event> &events, const pack_follower &eyes) {
        for (const pack_event &each : events) {
            print(each, out);
        }
        return options.until_empty && eyes.is_empty();
    });
    return exit_done;
}

/* The name itself, or what fits it as a pattern; an incremental pack's is both. */
bool is_meant(const std::string &name, const std::string &wanted) {
    return name == wanted || fnmatch(wanted.c_str(), name.c_str(), 0) == 0;
}

exit_status wait(const wait_options &options, const output &out) {
    follow(options.watch, [&](const std::vector<pack_event> &events, const pack_follower &) {
        const auto found =
            std::find_if(events.begin(), events.end(), [&options](const pack_event &each) {
                return options.fate == fate_text(each.what) && is_meant(each.pack, options.pack);
            });
        if (found == events.end()) {
            return false;
        }
        print(*found, out);
        return true;
    });
    return exit_done;
}

void add_after(CLI::App *command, double &after) {
    command
        ->add_option("--after", after,
                     "Leave out what the engine did up to then, seconds since 1970 as in "
                     "\"date +%s.%N\"")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);
}

void add_wait(CLI::App &group, command_line &line) {
    auto options = std::make_shared<wait_options>();
    options->watch.timeout = 30;
    CLI::App *command = add_command(
        group, "wait", "Waits until a pack meets a fate, and prints it as \"pack watch\" does",
        "from=$(date +%s.%N) && kzectl pack drop md_linux.tgz && "
        "kzectl pack wait md_linux.tgz applied --after $from --timeout 130");
    command->add_option("PACK", options->pack, "Its name, or a pattern")->required();
    command->add_option("FATE", options->fate, "A word of \"pack watch\", as \"too old\"")
        ->required()
        ->check(fate_problem);
    add_seconds(command, "--timeout", options->watch.timeout, "How long to wait; 0: for ever");
    add_after(command, options->watch.after);
    on_chosen(command, line, [&line, options] { return wait(*options, line.out); });
}

}  // namespace

void add_pack_watch(CLI::App &group, command_line &line) {
    auto options = std::make_shared<watch_options>();
    CLI::App *command = add_command(
        group, "watch", "Shows what becomes of each pack, with the reason, as it happens",
        "kzectl pack watch --until-empty --timeout 300",
        "Begins with what the engine tells of packs before. Until Ctrl-C, or the host's end "
        "(exit status 3).");
    command->add_flag("--until-empty", options->until_empty,
                      "End, with status 0, when no pack is left that the plug-in would take");
    add_seconds(command, "--timeout", options->timeout,
                "End, with status 4, after so long; 0: never");
    auto *from_now =
        command->add_flag("--from-now", options->from_now, "Leave out what happened before");
    add_after(command, options->after);
    from_now->excludes("--after");
    on_chosen(command, line, [&line, options] { return watch(*options, line.out); });
    add_wait(group, line);
}

}  // namespace kze::ctl
