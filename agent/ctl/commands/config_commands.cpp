/* kzectl config: the values of central configuration. */

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "agent/central_config/store.h"
#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/commands/module_commands.h"
#include "agent/ctl/core/announcement.h"

namespace kze::ctl {
namespace {

using config::store;
using config::store_entry;
using config::store_value;
using nlohmann::json;

constexpr char address_help[] =
    "Module and key may also be given as one: /mgr/base_collect/adv_threats.";

bool is_not_there(int result) {
    return result == config::STORE_ABSENT || result == config::STORE_NO_MODULE ||
           result == config::STORE_NO_KEY;
}

struct address {
    std::string module;
    std::string key;

    std::string text() const { return module + " " + key; }
};

/* "/a/b/c" is the key "/c" of the module "/a/b". */
address split_address(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    if (path.empty() || path[0] != '/' || slash == 0 || slash + 1 == path.size()) {
        throw failure(exit_usage, "\"" + path +
                                      "\" is no module and key; they look like "
                                      "/mgr/base_collect /adv_threats");
    }
    return {path.substr(0, slash), path.substr(slash)};
}

address make_address(const std::vector<std::string> &words) {
    if (words.size() == 1) {
        return split_address(words[0]);
    }
    for (const std::string &word : words) {
        if (word.size() < 2 || word[0] != '/') {
            throw failure(exit_usage, "\"" + word +
                                          "\" has no leading slash; a module and a "
                                          "key look like /mgr/base_collect /adv_threats");
        }
    }
    return {words[0], words[1]};
}

/* Tells the plug-in of a changed module where that is one of the console's, and notes it. */
std::string announce_change(const std::string &module, json &value) {
    const std::string name = announced_name(module);
    if (name.empty()) {
        return {};
    }
    const announcement told = announce({name});
    value["notified"] = told.delivered;
    value["problem"] = told.problem;
    return told.note();
}

json entry_json(const address &at, const store_value &value) {
    return {{"module", at.module},
            {"key", at.key},
            {"value", value.text},
            {"type", config::value_type_name(value.type)}};
}

exit_status get(const std::vector<std::string> &words, const output &out) {
    const address at = make_address(words);
    store from = open_store();
    store_value value;
    if (const int result = from.get(at.module, at.key, value); result != config::STORE_OK) {
        fail_for_store(result, from);
    }
    out.done(printable(value.text), entry_json(at, value));
    return exit_done;
}

exit_status set(std::vector<std::string> words, const std::string &type, const output &out) {
    store_value value{config::value_type_number(type), words.back()};
    if (value.type < 0) {
        throw failure(exit_usage, "no type \"" + type +
                                      "\"; the types are string, boolean, integer, real, "
                                      "structure and null");
    }
    words.pop_back();
    const address at = make_address(words);
    store in = open_store();
    if (const int result = in.set(at.module, at.key, value); result != config::STORE_OK) {
        fail_for_store(result, in);
    }
    json changed = entry_json(at, value);
    const std::string note = announce_change(at.module, changed);
    out.done(at.text() + " is \"" + printable(value.text) + "\"" + note, changed);
    return exit_done;
}

exit_status unset(const std::vector<std::string> &words, const output &out) {
    const address at = make_address(words);
    store in = open_store();
    const int result = in.unset(at.module, at.key);
    if (result != config::STORE_OK && !is_not_there(result)) {
        fail_for_store(result, in);
    }
    json changed = {{"was_set", result == config::STORE_OK}};
    if (result != config::STORE_OK) {
        out.done(at.text() + " was not set", changed);
        return exit_done;
    }
    const std::string note = announce_change(at.module, changed);
    out.done(at.text() + " is no longer set" + note, changed);
    return exit_done;
}

exit_status list(const std::string &module, const output &out) {
    store from = open_store();
    std::vector<store_entry> entries;
    if (const int result = from.list(entries); result != config::STORE_OK) {
        fail_for_store(result, from);
    }
    table rows;
    json values = json::array();
    rows.add_heads({"MODULE", "KEY", "VALUE"});
    for (const store_entry &entry : entries) {
        if (!module.empty() && entry.module != module) {
            continue;
        }
        const bool is_text = entry.value.type == config::VALUE_STRING;
        const std::string text = printable(entry.value.text);
        values.push_back(entry_json({entry.module, entry.key}, entry.value));
        rows.add({{printable(entry.module)},
                  {printable(entry.key), look::accent},
                  {is_text ? "\"" + text + "\""
                           : text + " (" + config::value_type_name(entry.value.type) + ")"}});
    }
    if (out.json()) {
        out.done("", {{"values", values}});
    } else {
        rows.print(out);
    }
    return exit_done;
}

/* The words of the command line, as many as there are. */
struct words_of_line {
    std::vector<std::string> all = std::vector<std::string>(3);
    std::vector<CLI::Option *> options;

    void add(CLI::App *command, const std::string &name, const std::string &help) {
        options.push_back(command->add_option(name, all[options.size()], help));
    }
    std::vector<std::string> given() const {
        std::vector<std::string> words;
        for (std::size_t i = 0; i < options.size() && options[i]->count() != 0; ++i) {
            words.push_back(all[i]);
        }
        return words;
    }
};

std::shared_ptr<words_of_line> add_address(CLI::App *command) {
    auto words = std::make_shared<words_of_line>();
    words->add(command, "MODULE", "With its leading slash, as /mgr/base_collect");
    words->add(command, "KEY", "The same, as /adv_threats");
    words->options[0]->required();
    return words;
}

void add_set(CLI::App &to, command_line &line) {
    CLI::App *command = add_command(to, "set", "Sets a value",
                                    "kzectl config set /mgr/base_collect /adv_threats true",
                                    "A running plug-in is notified of a change below /mgr, and "
                                    "reads its values anew; all that\n"
                                    "it reads are strings. Without the configuration service it "
                                    "reads them at its next start.\n" +
                                        std::string(address_help));
    auto words = add_address(command);
    words->add(command, "VALUE", "The value's text");
    words->options[1]->required();
    auto type = std::make_shared<std::string>("string");
    command->add_option("--type", *type, "string, boolean, integer, real, structure or null")
        ->type_name("TYPE")
        ->capture_default_str();
    on_chosen(command, line, [&line, words, type] { return set(words->given(), *type, line.out); });
}

}  // namespace

store open_store() {
    return store(tree_path("@/../config/kzacfgc"));
}

void fail_for_store(int result, const store &of) {
    switch (result) {
        case config::STORE_ABSENT:
        case config::STORE_NO_MODULE:
        case config::STORE_NO_KEY:
            throw failure(exit_not_there, of.problem());
        case config::STORE_BAD_ARGUMENT:
            throw failure(exit_usage, of.problem());
        default:
            throw failure(exit_failed, of.problem());
    }
}

void add_config_commands(CLI::App &app, command_line &line) {
    CLI::App *group =
        add_command(app, "config", "Reads and changes central configuration", "kzectl config list");
    group->require_subcommand(1);

    CLI::App *get_command =
        add_command(*group, "get", "Prints a value",
                    "kzectl config get /mgr/base_collect /adv_threats", address_help);
    on_chosen(get_command, line,
              [&line, words = add_address(get_command)] { return get(words->given(), line.out); });

    add_set(*group, line);

    CLI::App *unset_command =
        add_command(*group, "unset", "Removes a value, if it is there",
                    "kzectl config unset /mgr/base_collect/adv_threats", address_help);
    on_chosen(unset_command, line, [&line, words = add_address(unset_command)] {
        return unset(words->given(), line.out);
    });

    auto module = std::make_shared<std::string>();
    CLI::App *list_command =
        add_command(*group, "list", "Lists the values", "kzectl config list /mgr/base_collect");
    list_command->add_option("MODULE", *module, "Only this module's");
    on_chosen(list_command, line, [&line, module] { return list(*module, line.out); });

    add_module_commands(*group, line);
}

}  // namespace kze::ctl
