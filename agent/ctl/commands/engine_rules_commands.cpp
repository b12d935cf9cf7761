#include "agent/ctl/commands/engine_rules_commands.h"

#include <memory>
#include <optional>
#include <string>

#include "agent/ctl/core/ask.h"
#include "agent/ctl/core/engine_change.h"
#include "agent/ctl/views/engine_view.h"
#include "agent/engine/capabilities.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

/* The texts of one type, each with its "text", which is not in the status. */
json texts_of_type(const json &status, int type) {
    json texts = json::array();
    for (json text : status.at("rules")) {
        if (text.at("type") != type) {
            continue;
        }
        const json whole =
            ask(engine_endpoint, {{"op", "rule-text"}, {"type", type}, {"part", text.at("part")}});
        text["text"] = whole.at("text");
        text["cut"] = whole.at("cut");
        texts.push_back(std::move(text));
    }
    return texts;
}

exit_status show_type(const std::string &name, const command_line &line) {
    const std::optional<int> type = engine::rules_type(name);
    if (!type) {
        throw failure(exit_usage, "there are no rules \"" + name +
                                      "\"; name a capability or custom_ioa, or give its number");
    }
    const json texts = texts_of_type(ask(engine_endpoint, {{"op", "status"}}), *type);
    if (texts.empty()) {
        throw failure(exit_not_there, std::string("the engine holds no text of ") +
                                          engine::rules_name(*type) + " rules");
    }
    if (line.out.json()) {
        line.out.done("", {{"texts", texts}});
    } else {
        print_rule_texts(texts, line.out);
    }
    return exit_done;
}

exit_status show_rules(const command_line &line) {
    const json status = ask(engine_endpoint, {{"op", "status"}});
    if (line.out.json()) {
        line.out.done("", {{"texts", status.at("rules")},
                           {"packs", status.at("packs")},
                           {"loads", status.at("loads")},
                           {"versions", status.at("versions")}});
    } else {
        print_rules(status, line.out);
    }
    return exit_done;
}

void add_rules(CLI::App &to, command_line &line) {
    auto type = std::make_shared<std::string>();
    CLI::App *command =
        add_command(to, "rules", "Shows the rule texts that it holds, and the packs it has loaded",
                    "kzectl engine rules custom_ioa",
                    "Texts are held as long as the engine's process lives; versions and what is\n"
                    "told of packs outlive it. A text longer than 1 MiB is shown up to there.");
    command->add_option("TYPE", *type,
                        "The whole texts of one capability, or of custom_ioa, by name or number");
    on_chosen(command, line,
              [&line, type] { return type->empty() ? show_rules(line) : show_type(*type, line); });
}

struct rise_options {
    std::string type;
    std::optional<std::string> to;
    std::optional<unsigned int> after_ms;
    std::optional<unsigned int> times;
    bool never = false;
};

json rise_request(const rise_options &options) {
    json request = {{"op", "rise"}, {"type", options.type}};
    if (options.to) {
        request["to"] = *options.to;
    }
    if (options.after_ms) {
        request["after_ms"] = *options.after_ms;
    }
    if (options.times) {
        request["times"] = *options.times;
    }
    if (options.never) {
        request["never"] = true;
    }
    return request;
}

void add_rise(CLI::App &to, command_line &line) {
    auto options = std::make_shared<rise_options>();
    CLI::App *command = add_command(
        to, "rise", "Sets how the version rises when the engine loads a rule file",
        "kzectl engine rise ioc --after-ms 8000 --times 1",
        "Without an option it rises as usual: at once, to the version in the file, and a file of\n"
        "a lower version changes nothing. \"engine clear\" forgets what is set, too.");
    command->add_option("TYPE", options->type, "ioc, ioa or md")->required();
    command->add_option("--after-ms", options->after_ms, "Milliseconds after the call");
    command->add_option("--to", options->to,
                        "To this version, not the file's; it may be lower than before");
    command->add_flag("--never", options->never, "Load the file, but keep the version");
    command->add_option("--times", options->times,
                        "For so many files; without it until it is set anew");
    on_chosen(command, line, [&line, options] {
        change_engine_settings(rise_request(*options));
        const bool as_usual = !options->to && !options->after_ms && !options->never;
        line.out.done("The " + options->type + " version rises as " +
                      (as_usual ? "usual" : "was set"));
        return exit_done;
    });
}

void add_drive(CLI::App &to, command_line &line) {
    struct drive_options {
        std::optional<int> drive;
        std::optional<int> collect;
    };
    auto options = std::make_shared<drive_options>();
    CLI::App *command =
        add_command(to, "drive", "Shows the drive switches and the last orders, or sets the states",
                    "kzectl engine drive --drive 0 --collect 1");
    command->add_option("--drive", options->drive, "The drive's state that it reports, any number");
    command->add_option("--collect", options->collect, "The same of the drive's collect switch");
    on_chosen(command, line, [&line, options] {
        if (options->drive || options->collect) {
            json request = {{"op", "drive"}};
            if (options->drive) {
                request["drive"] = *options->drive;
            }
            if (options->collect) {
                request["collect"] = *options->collect;
            }
            change_engine_settings(request);
            line.out.done("The engine reports the drive states that were set");
            return exit_done;
        }
        const json status = ask(engine_endpoint, {{"op", "status"}});
        if (line.out.json()) {
            json shown = status.at("drive");
            shown["orders"] = status.at("drive_orders");
            line.out.done("", shown);
        } else {
            print_drive(status, line.out);
        }
        return exit_done;
    });
}

}  // namespace

void add_engine_rules_commands(CLI::App &group, command_line &line) {
    add_rules(group, line);
    add_rise(group, line);
    add_drive(group, line);
}

}  // namespace kze::ctl
