/* kzectl request: management requests to the plug-in, and its response codes. */

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/request_call.h"
#include "agent/ctl/core/request_message.h"
#include "vrdipc.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr unsigned int most_at_once = 10000;

constexpr char exit_help[] =
    "Exit status by the response's code, beside the usual ones (3: the plug-in isn't there,\n"
    "4: no response in time):\n"
    "   0  KZEMM_TRACE_OK             queued; what becomes of it shows elsewhere\n"
    "  11  KZEMM_TRACE_QUEUE_FULL\n"
    "  12  KZEMM_TRACE_NO_PERMISSION  its switch is off\n"
    "  13  KZEMM_TRACE_INVALID\n"
    "  14  KZEMM_TRACE_FAILED\n"
    "With --count that of the first request that didn't end with KZEMM_TRACE_OK. One without a\n"
    "response in time may be carried out all the same, later.";

struct request_options {
    std::string file;
    std::string text;
    bool raw = false;
    std::string rules_id;
    std::string rules;
    std::string rules_file;
    unsigned int count = 1;
    double timeout = 10;
    /* Which of them were given. */
    CLI::Option *file_option = nullptr;
    CLI::Option *text_option = nullptr;
    CLI::Option *rules_id_option = nullptr;
    CLI::Option *rules_option = nullptr;
    CLI::Option *rules_file_option = nullptr;
};

bool is_given(const CLI::Option *option) {
    return option != nullptr && option->count() != 0;
}

/* All of a stream, but no more than an IPC message can hold and a byte. */
std::string bytes_of(std::istream &from, const std::string &name) {
    std::string bytes(std::size_t{VRD_IPC_MAX_BODY} + 1, '\0');
    from.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(from.gcount()));
    if (from.bad()) {
        throw failure(exit_failed, "can't read " + name);
    }
    if (bytes.size() > VRD_IPC_MAX_BODY) {
        throw failure(exit_usage, name + " is longer than the 16 MiB that a message holds");
    }
    return bytes;
}

std::string read_file(const std::string &path) {
    if (path == "-") {
        return bytes_of(std::cin, "standard input");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw failure(exit_usage, "there is no file " + path + " that can be read");
    }
    return bytes_of(file, path);
}

std::string rule_set_of(const request_options &options) {
    if (!is_given(options.rules_id_option) ||
        is_given(options.rules_option) == is_given(options.rules_file_option)) {
        throw failure(exit_usage,
                      "a rule set is --rules-id with --rules or with --rules-file, both of them "
                      "together");
    }
    const std::string rules =
        is_given(options.rules_option) ? options.rules : read_file(options.rules_file);
    std::string text = rule_set_text(options.rules_id, rules);
    if (text.empty()) {
        throw failure(exit_usage, "a rule set and its identifier are UTF-8 text");
    }
    return text;
}

std::string body_of(const request_options &options) {
    const bool is_rule_set = is_given(options.rules_id_option) || is_given(options.rules_option) ||
                             is_given(options.rules_file_option);
    if (is_given(options.file_option) + is_given(options.text_option) + is_rule_set != 1) {
        throw failure(exit_usage, std::string("give one body: FILE, \"-\", or --text") +
                                      (options.rules_option == nullptr ? "" : ", or a rule set"));
    }
    if (is_rule_set) {
        return rule_set_of(options);
    }
    return is_given(options.text_option) ? options.text : read_file(options.file);
}

/* What one request came to: a code, or why there is none and the status for that. */
struct request_outcome {
    std::optional<int> code;
    exit_status status = exit_failed;
    std::string problem;
};

request_outcome unanswered(int status, double seconds) {
    if (status == VRD_IPC_E_TIMEOUT) {
        return {std::nullopt, exit_timed_out,
                "the plug-in gave no response within " +
                    std::to_string(std::lround(std::ceil(seconds))) + " s"};
    }
    if (status == VRD_IPC_E_NO_PEER || status == VRD_IPC_E_PEER_GONE) {
        return {std::nullopt, exit_not_running,
                "the plug-in takes no requests now: its endpoint \"" +
                    std::string(request_endpoint) +
                    (status == VRD_IPC_E_NO_PEER ? "\" isn't there" : "\" went away") +
                    "; see kzectl status"};
    }
    return {std::nullopt, exit_failed,
            std::string("the request could not be sent: ") + vrd_ipc_strerror(status)};
}

std::string name_of(int code) {
    const char *const name = response_name(code);
    return name == nullptr ? "code " + std::to_string(code) : name;
}

exit_status status_of(int code) {
    switch (code) {
        case 0:
            return exit_done;
        case 1:
            return exit_queue_full;
        case 2:
            return exit_no_permission;
        case 3:
            return exit_invalid;
        case 4:
            return exit_not_taken;
        default:
            return exit_failed;
    }
}

request_outcome outcome_of(const request_end &end, const request_kind &kind, double seconds) {
    if (end.status != VRD_IPC_OK) {
        return unanswered(end.status, seconds);
    }
    const response_code response = read_response(end.answer);
    if (!response.code || end.cmd != kind.cmd) {
        return {std::nullopt, exit_failed,
                "the response can't be read: " +
                    (response.code ? "it is one to command " + std::to_string(end.cmd)
                                   : response.problem)};
    }
    return {response.code, status_of(*response.code), ""};
}

/* The same outcomes together: by code, and those without one by their reason. */
struct outcome_counts {
    std::map<int, unsigned int> codes;
    std::map<std::string, unsigned int> problems;
};

outcome_counts counted(const std::vector<request_outcome> &outcomes) {
    outcome_counts counts;
    for (const request_outcome &outcome : outcomes) {
        ++(outcome.code ? counts.codes[*outcome.code] : counts.problems[outcome.problem]);
    }
    return counts;
}

void print_lines(const outcome_counts &counts, bool is_one, const output &out) {
    const auto times = [is_one](unsigned int count) {
        return is_one ? std::string() : std::to_string(count) + " ";
    };
    for (const auto &[code, count] : counts.codes) {
        const char *const meaning = response_meaning(code);
        out.line(times(count) + out.paint(code == 0 ? look::good : look::bad, name_of(code)) +
                 (meaning == nullptr ? std::string() : std::string(": ") + meaning));
    }
    for (const auto &[problem, count] : counts.problems) {
        out.line(times(count) + out.paint(look::bad, "without a code") + ": " + problem);
    }
}

json counts_json(const outcome_counts &counts) {
    json responses = json::array();
    for (const auto &[code, count] : counts.codes) {
        responses.push_back({{"code", code}, {"name", name_of(code)}, {"count", count}});
    }
    json problems = json::array();
    for (const auto &[problem, count] : counts.problems) {
        problems.push_back({{"error", problem}, {"count", count}});
    }
    return {{"responses", responses}, {"without_code", problems}};
}

exit_status print_outcomes(const request_kind &kind, const std::vector<request_outcome> &outcomes,
                           const output &out) {
    const auto first_bad =
        std::find_if(outcomes.begin(), outcomes.end(),
                     [](const request_outcome &outcome) { return outcome.status != exit_done; });
    const exit_status status = first_bad == outcomes.end() ? exit_done : first_bad->status;
    const outcome_counts counts = counted(outcomes);
    if (counts.codes.empty()) {
        throw failure(status, first_bad->problem);
    }
    if (!out.json()) {
        print_lines(counts, outcomes.size() == 1, out);
        return status;
    }
    json value = counts_json(counts);
    value["ok"] = status == exit_done;
    value["cmd"] = kind.cmd;
    value["status"] = static_cast<int>(status);
    if (first_bad != outcomes.end()) {
        value["error"] = first_bad->code ? "the plug-in answered " + name_of(*first_bad->code)
                                         : first_bad->problem;
    }
    out.json_line(value);
    return status;
}

exit_status request(const request_kind &kind, const request_options &options, const output &out) {
    const std::string body = body_of(options);
    const std::string message = kind.framed && !options.raw ? request_frame(body) : body;
    if (message.size() > VRD_IPC_MAX_BODY) {
        throw failure(exit_usage, "a message holds 16 MiB, and this one is longer: " +
                                      std::to_string(body.size()) + " bytes of body" +
                                      (message.size() == body.size() ? "" : " in a frame"));
    }
    const auto seconds = static_cast<unsigned int>(std::ceil(options.timeout));
    std::vector<request_outcome> outcomes;
    for (const request_end &end :
         send_requests(request_endpoint, kind.cmd, message, options.count, seconds)) {
        outcomes.push_back(outcome_of(end, kind, options.timeout));
    }
    return print_outcomes(kind, outcomes, out);
}

void add_request(CLI::App &to, command_line &line, const request_kind &kind,
                 const std::string &example) {
    auto options = std::make_shared<request_options>();
    CLI::App *command = add_command(to, kind.name, kind.help, example, exit_help);
    options->file_option =
        command->add_option("FILE", options->file, "The body's bytes; \"-\" reads standard input");
    options->text_option =
        command->add_option("--text", options->text, "The body's text")->type_name("STRING");
    if (kind.framed) {
        command->add_flag("--raw", options->raw,
                          "Send the body as it is, without a module header around it");
    }
    if (kind.cmd == ioa_request.cmd) {
        options->rules_id_option =
            command->add_option("--rules-id", options->rules_id, "The rule set's identifier")
                ->type_name("ID");
        options->rules_option =
            command->add_option("--rules", options->rules, "Its text")->type_name("STRING");
        options->rules_file_option =
            command->add_option("--rules-file", options->rules_file, "A file with its text")
                ->type_name("FILE");
    }
    command->add_option("--count", options->count, "Send it so many times at once")
        ->check(CLI::Range(1U, most_at_once).description(""))
        ->capture_default_str();
    add_seconds(command, "--timeout", options->timeout, "How long to wait for the responses");
    on_chosen(command, line, [&line, &kind, options] { return request(kind, *options, line.out); });
}

}  // namespace

void add_request_commands(CLI::App &app, command_line &line) {
    CLI::App *group = add_command(app, "request", "Sends a management request to the plug-in",
                                  "kzectl request linkage order.bin", exit_help);
    group->require_subcommand(1);
    add_request(*group, line, linkage_request, "kzectl request linkage order.bin");
    add_request(*group, line, append_request, "kzectl request append --text 'an order'");
    add_request(*group, line, hunting_request, "generate | kzectl request hunting -");
    add_request(*group, line, ioa_request,
                "kzectl request ioa --rules-id set-7 --rules-file rules.txt");
    add_request(*group, line, lkganal_request, "kzectl request lkganal order.bin --count 3");
}

}  // namespace kze::ctl
