/* kzectl config module: the modules of central configuration that are asked for as a whole. */

#include "agent/ctl/commands/module_commands.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "agent/central_config/modules.h"
#include "agent/ctl/core/announcement.h"

namespace kze::ctl {
namespace {

using config::field_kind;
using config::module_content;
using config::module_description;
using config::module_field;
using config::store;
using config::store_entry;
using nlohmann::json;

const char *kind_text(field_kind kind) {
    switch (kind) {
        case field_kind::json_object:
            return "a JSON object";
        case field_kind::digit_flag:
        case field_kind::word_flag:
            return "true or false";
        default:
            return "text";
    }
}

/* All modules and fields, for the help. */
std::string known_modules() {
    std::string text = "Modules and fields:";
    for (const module_description &module : config::modules()) {
        text += std::string("\n  ") + module.name;
        for (const module_field &field : module.fields) {
            text += std::string("\n    ") + field.name + ": " + kind_text(field.kind) + ", " +
                    field.meaning;
        }
    }
    return text;
}

const module_description &module_named(const std::string &name) {
    const module_description *known = config::find_module(name);
    if (known != nullptr) {
        return *known;
    }
    std::string text = "no module \"" + printable(name) + "\"; there are";
    for (const module_description &module : config::modules()) {
        text += std::string(" ") + module.name;
    }
    throw failure(exit_usage, text);
}

exit_status show(const std::string &name, const output &out) {
    const module_description &module = module_named(name);
    store from = open_store();
    module_content content;
    if (const int result = config::read_module(from, module, content); result != config::STORE_OK) {
        fail_for_store(result, from);
    }
    if (out.json()) {
        json fields = json::object();
        for (const auto &[field, value] : content.fields) {
            fields[field] = value;
        }
        out.done("", {{"module", module.name},
                      {"fields", fields},
                      {"missing", content.missing},
                      {"no_text", content.no_text}});
        return exit_done;
    }
    table rows;
    rows.add_heads({"FIELD", "ANSWERED AS"});
    for (const auto &[field, value] : content.fields) {
        rows.add({{field, look::accent}, {"\"" + printable(value) + "\""}});
    }
    for (const std::string &field : content.missing) {
        rows.add({{field, look::accent}, {"not set, left out", look::faint}});
    }
    for (const std::string &field : content.no_text) {
        rows.add({{field, look::accent}, {"stored as no string, left out", look::warning}});
    }
    rows.print(out);
    return exit_done;
}

/* What stands behind "FIELD=": a text, or "@" and the file that holds it. */
std::string given_value(const std::string &text) {
    if (text.empty() || text[0] != '@') {
        return text;
    }
    const std::string path = text.substr(1);
    std::ifstream file(path, std::ios::binary);
    std::string content(std::istreambuf_iterator<char>(file), {});
    if (!file.is_open() || file.bad()) {
        throw failure(exit_usage, "can't read " + path);
    }
    return content;
}

store_entry entry_of(const module_description &module, const std::string &word) {
    const std::size_t sign = word.find('=');
    const std::string name = word.substr(0, sign);
    const module_field *field = module.find(name);
    if (field == nullptr) {
        std::string text = "\"" + printable(name) + "\" is no field of " + module.name +
                           "; FIELD=VALUE or FIELD=@FILE takes";
        for (const module_field &known : module.fields) {
            text += std::string(" ") + known.name;
        }
        throw failure(exit_usage, text);
    }
    if (sign == std::string::npos) {
        throw failure(exit_usage, "the field " + name + " has no value; write " + name +
                                      "=VALUE or " + name +
                                      "=@FILE, without blanks around the sign");
    }
    store_entry entry;
    entry.module = module.path();
    entry.key = std::string("/") + field->name;
    entry.value.type = config::VALUE_STRING;
    const std::string problem =
        config::check_field(*field, given_value(word.substr(sign + 1)), entry.value.text);
    if (!problem.empty()) {
        throw failure(exit_usage, problem);
    }
    return entry;
}

exit_status set(const std::string &name, const std::vector<std::string> &words, const output &out) {
    const module_description &module = module_named(name);
    std::vector<store_entry> entries;
    json fields = json::array();
    for (const std::string &word : words) {
        entries.push_back(entry_of(module, word));
        fields.push_back(entries.back().key.substr(1));
    }
    store in = open_store();
    if (const int result = in.set(entries); result != config::STORE_OK) {
        fail_for_store(result, in);
    }
    const announcement told = announce({module.name});
    out.done(std::string(module.name) + " is changed" + told.note(), {{"module", module.name},
                                                                      {"fields", fields},
                                                                      {"notified", told.delivered},
                                                                      {"problem", told.problem}});
    return exit_done;
}

exit_status push(const std::vector<std::string> &names, const output &out) {
    for (const std::string &name : names) {
        module_named(name);
    }
    const announcement told = announce(names);
    if (!told.delivered) {
        throw failure(told.status, "nobody is notified: " + told.problem);
    }
    out.done("The plug-in is notified", {{"modules", names}, {"notified", true}});
    return exit_done;
}

}  // namespace

void add_module_commands(CLI::App &group, command_line &line) {
    CLI::App *module = add_command(
        group, "module", "Reads, changes and announces modules that are asked for as a whole",
        "kzectl config module show abnormal_login", known_modules());
    module->require_subcommand(1);

    auto shown = std::make_shared<std::string>();
    CLI::App *show_command =
        add_command(*module, "show", "Shows how the configuration service answers for a module",
                    "kzectl config module show anti_bfa", known_modules());
    show_command->add_option("MODULE", *shown, "As below")->required();
    on_chosen(show_command, line, [&line, shown] { return show(*shown, line.out); });

    auto changed = std::make_shared<std::string>();
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *set_command = add_command(
        *module, "set", "Changes fields of a module at once, and announces it",
        "kzectl config module set abnormal_login config=@rules.txt abnormal_ip_login_enable=true",
        known_modules() + "\n\nWhat these checks refuse can be stored with \"kzectl config set\".");
    set_command->add_option("MODULE", *changed, "As below")->required();
    set_command->add_option("FIELD", *words, "FIELD=VALUE, or FIELD=@FILE for a file's content")
        ->required();
    on_chosen(set_command, line,
              [&line, changed, words] { return set(*changed, *words, line.out); });

    auto pushed = std::make_shared<std::vector<std::string>>();
    CLI::App *push_command = add_command(
        *module, "push", "Announces modules as changed, without a change",
        "kzectl config module push trust_ip base_drive",
        "The exit status is 3 when nobody is there to be notified.\n" + known_modules());
    push_command->add_option("MODULE", *pushed, "As below")->required();
    on_chosen(push_command, line, [&line, pushed] { return push(*pushed, line.out); });
}

}  // namespace kze::ctl
