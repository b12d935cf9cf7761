/* kzectl engine: the engine's answers, its data and its accidents. */

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/commands/credible_command.h"
#include "agent/ctl/commands/engine_rules_commands.h"
#include "agent/ctl/core/ask.h"
#include "agent/ctl/core/engine_change.h"
#include "agent/ctl/core/engine_service.h"
#include "agent/ctl/core/processes.h"
#include "agent/ctl/views/engine_view.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

void add_status(CLI::App &to, command_line &line) {
    CLI::App *command =
        add_command(to, "status", "Shows capabilities, clients, set answers and versions",
                    "kzectl engine status");
    on_chosen(command, line, [&line] {
        const json status = ask(engine_endpoint, {{"op", "status"}});
        if (line.out.json()) {
            line.out.json_line(status);
        } else {
            print_engine(status, line.out);
        }
        return exit_done;
    });
}

struct answer_options {
    std::string call;
    std::optional<int> code;
    std::optional<int> value;
    std::optional<unsigned int> delay_ms;
    std::optional<unsigned int> times;
    std::optional<unsigned int> callback_delay_ms;
    std::optional<int> callback_type;
    std::optional<int> for_type;
    bool refuse = false;
    bool never = false;
    bool unwritten = false;
    bool callback_never = false;
};

json answer_request(const answer_options &options) {
    json request = {{"op", "answer"}, {"call", options.call}};
    const auto set = [&](const char *key, const auto &value) {
        if (value) {
            request[key] = *value;
        }
    };
    set("code", options.code);
    set("value", options.value);
    set("delay_ms", options.delay_ms);
    set("times", options.times);
    set("callback_delay_ms", options.callback_delay_ms);
    set("callback_type", options.callback_type);
    set("for_type", options.for_type);
    for (const auto &[key, on] :
         {std::pair("refuse", options.refuse), std::pair("never", options.never),
          std::pair("unwritten", options.unwritten),
          std::pair("callback_never", options.callback_never)}) {
        if (on) {
            request[key] = true;
        }
    }
    return request;
}

void add_answer(CLI::App &to, command_line &line) {
    auto options = std::make_shared<answer_options>();
    CLI::App *command =
        add_command(to, "answer", "Sets how the engine answers a call of its client",
                    "kzectl engine answer x_client_engine_control --code -5 --times 1");
    command->add_option("CALL", options->call, "The client's function, as x_client_start")
        ->required();
    command->add_option("--code", options->code, "What the function returns; 0: as usual");
    command->add_option("--value", options->value,
                        "What its callback or out-parameter gets in place of the usual");
    command->add_option("--delay-ms", options->delay_ms, "Milliseconds to wait before the answer");
    command->add_option("--times", options->times,
                        "For so many calls; without it until \"engine clear\"");
    command->add_flag("--refuse", options->refuse, "Answer as if there were no engine (-8)");
    command->add_flag("--never", options->never, "Give no answer at all");
    command->add_flag("--unwritten", options->unwritten, "Leave the out-parameter as it is");
    command->add_option("--callback-delay-ms", options->callback_delay_ms,
                        "When the callback comes, or the event that answers an order; else 50");
    command->add_flag("--callback-never", options->callback_never, "It never comes");
    command->add_option("--callback-type", options->callback_type,
                        "The engine type that the callback is told, else the call's");
    command->add_option("--for-type", options->for_type,
                        "Only calls with this first argument, as an engine type");
    on_chosen(command, line, [&line, options] {
        change_engine_settings(answer_request(*options));
        line.out.done("The engine's answer to " + options->call + " is set");
        return exit_done;
    });
}

void add_clear(CLI::App &to, command_line &line) {
    auto call = std::make_shared<std::string>();
    CLI::App *command = add_command(to, "clear", "Forgets set answers, and ends a silence",
                                    "kzectl engine clear x_client_start");
    command->add_option("CALL", *call, "Only the answer to this function");
    on_chosen(command, line, [&line, call] {
        json request = {{"op", "clear"}};
        if (!call->empty()) {
            request["call"] = *call;
        }
        change_engine_settings(request);
        line.out.done(call->empty() ? "The engine answers as usual"
                                    : "The engine answers " + *call + " as usual");
        return exit_done;
    });
}

std::string absolute_path(const std::string &path) {
    char resolved[PATH_MAX] = "";
    if (::realpath(path.c_str(), resolved) == nullptr) {
        throw failure(exit_usage, "there is no file " + path);
    }
    return resolved;
}

void add_push(CLI::App &to, command_line &line) {
    struct push_options {
        std::string kind;
        std::string file;
    };
    auto options = std::make_shared<push_options>();
    CLI::App *command = add_command(to, "push", "Lets the engine deliver a file's bytes",
                                    "kzectl engine push alarm alarm.bin");
    command
        ->add_option("KIND", options->kind,
                     "alarm, linkage, append, hunting, credible, clt or origin")
        ->required();
    command->add_option("FILE", options->file, "The file whose bytes go out")->required();
    on_chosen(command, line, [&line, options] {
        const json answer =
            ask(engine_endpoint,
                {{"op", "push"}, {"kind", options->kind}, {"file", absolute_path(options->file)}});
        line.out.done("The engine delivers " + options->kind + " data", answer);
        return exit_done;
    });
}

void add_origin_now(CLI::App &to, command_line &line) {
    CLI::App *command =
        add_command(to, "origin-now", "Lets the engine deliver origin data without waiting",
                    "kzectl engine origin-now");
    on_chosen(command, line, [&line] {
        const json answer = ask(engine_endpoint, {{"op", "origin-now"}});
        line.out.done("The engine takes a snapshot of this host's processes", answer);
        return exit_done;
    });
}

void add_die(CLI::App &to, command_line &line) {
    auto stay_down = std::make_shared<bool>(false);
    CLI::App *command = add_command(
        to, "die", "Lets the engine's process die; its service starts it again after 2 seconds",
        "kzectl engine die --stay-down");
    command->add_flag("--stay-down", *stay_down, "Its service doesn't start it again");
    on_chosen(command, line, [&line, stay_down] {
        const json answer = ask(engine_endpoint, {{"op", "die"}, {"stay_down", *stay_down}});
        const auto pid = answer.value("pid", 0);
        if (!wait_for_end(pid, deadline(ask_seconds))) {
            throw failure(exit_timed_out,
                          "the engine, process " + std::to_string(pid) + ", did not die");
        }
        line.out.done("The engine, process " + std::to_string(pid) + ", died" +
                          (*stay_down ? " and stays down" : ""),
                      answer);
        return exit_done;
    });
}

void add_silent(CLI::App &to, command_line &line) {
    auto seconds = std::make_shared<unsigned int>(0);
    CLI::App *command = add_command(to, "silent", "Lets the engine answer nothing for a while",
                                    "kzectl engine silent 15");
    command->add_option("SECONDS", *seconds, "How long; without it, or 0, until \"engine clear\"")
        ->check(CLI::Range(0, 86400).description(""));
    on_chosen(command, line, [&line, seconds] {
        ask(engine_endpoint, {{"op", "silent"}, {"seconds", *seconds}});
        line.out.done(*seconds == 0
                          ? std::string("The engine is silent until \"kzectl engine clear\"")
                          : "The engine is silent for " + std::to_string(*seconds) + " s");
        return exit_done;
    });
}

void add_version(CLI::App &to, command_line &line) {
    struct version_options {
        std::string type;
        std::string version;
    };
    auto options = std::make_shared<version_options>();
    CLI::App *command = add_command(to, "version", "Sets the version of rules that it reports",
                                    "kzectl engine version ioc 2.0");
    command->add_option("TYPE", options->type, "ioc, ioa or md")->required();
    command->add_option("VERSION", options->version, "The version's text")->required();
    on_chosen(command, line, [&line, options] {
        change_engine_settings(
            {{"op", "version"}, {"type", options->type}, {"version", options->version}});
        line.out.done("The engine reports " + options->type + " version " + options->version);
        return exit_done;
    });
}

void add_service(CLI::App &to, command_line &line, const std::string &verb, const std::string &help,
                 const std::string &did) {
    CLI::App *command = add_command(to, verb, help, "kzectl engine " + verb);
    on_chosen(command, line, [&line, verb, did] {
        order_engine_service(verb, deadline(ask_seconds));
        line.out.done("The engine's service " + did);
        return exit_done;
    });
}

}  // namespace

void add_engine_commands(CLI::App &app, command_line &line) {
    CLI::App *group =
        add_command(app, "engine", "Drives the engine", "kzectl engine push alarm alarm.bin");
    group->require_subcommand(1);
    add_status(*group, line);
    add_answer(*group, line);
    add_clear(*group, line);
    add_push(*group, line);
    add_credible_command(*group, line);
    add_origin_now(*group, line);
    add_die(*group, line);
    add_silent(*group, line);
    add_version(*group, line);
    add_engine_rules_commands(*group, line);
    add_service(*group, line, "start", "Starts the engine's service", "is started");
    add_service(*group, line, "stop", "Stops the engine's service", "is stopped");
    add_service(*group, line, "restart", "Stops it and starts it again", "is started anew");
}

}  // namespace kze::ctl
