/* kzectl ioa: the custom IOA rules as the plug-in knows them. */

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "agent/ctl/core/entries.h"
#include "agent/ctl/views/ioa_report.h"
#include "agent/ctl/views/records.h"
#include "agent/gateway/gateway.h"
#include "agent/gateway/journal.h"
#include "engine/qd_client.h"
#include "kzautil.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr char rule_file[] = "config/kzectmrule.ini";

std::optional<std::string> stored_id() {
    const std::unique_ptr<void, decltype(&kze_ini_file_free)> ini(
        kze_ini_file_load(tree_path(std::string("@/../") + rule_file).c_str()), &kze_ini_file_free);
    const char *const id = ini == nullptr ? nullptr : kze_ini_file_get(ini.get(), "ioa", "ruleid");
    return id == nullptr ? std::nullopt : std::optional<std::string>(id);
}

/* The newest record of a type, with what it tells. */
struct last_report {
    kept_record entry;
    std::optional<ioa_report> report;
};

std::optional<last_report> newest(record_reader &journal, int type) {
    const auto entries = must_read(journal.newest(1, type), journal);
    if (entries.empty()) {
        return std::nullopt;
    }
    const auto whole = journal.show(entries.front().id);
    return last_report{entries.front(), whole && !whole->empty()
                                            ? read_ioa_report(type, record_content(whole->front()))
                                            : std::nullopt};
}

json report_json(const std::optional<last_report> &last) {
    if (!last) {
        return nullptr;
    }
    json value = {{"record", last->entry.id}, {"accepted_us", last->entry.time_us}};
    if (last->report) {
        value["agentId"] = last->report->agent_id;
        value["rulesId"] = last->report->rules_id;
        if (last->report->res) {
            value["res"] = *last->report->res;
        }
    }
    return value;
}

void add_row(table &rows, const char *name, const std::optional<last_report> &last) {
    if (!last) {
        rows.add({{name, look::strong}, {"none yet", look::faint}});
        return;
    }
    const bool refused = last->report && last->report->res.value_or(0) != 0;
    rows.add({{name, look::strong},
              {last->report ? ioa_report_text(*last->report) : "unreadable",
               refused || !last->report ? look::bad : look::good},
              {human_time(last->entry.time_us), look::faint},
              {"record " + std::to_string(last->entry.id), look::faint}});
}

exit_status status(const output &out) {
    const std::optional<std::string> stored = stored_id();
    record_reader journal(tree_path(GATEWAY_JOURNAL_PATH), gateway::journal_form);
    const auto result = newest(journal, KZEMM_DATA_CTMIOA_RESULT);
    const auto hello = newest(journal, KZEMM_DATA_CTMIOA_HELLO);
    if (out.json()) {
        out.done("", {{"stored", stored ? json(*stored) : json(nullptr)},
                      {"result", report_json(result)},
                      {"hello", report_json(hello)}});
        return exit_done;
    }
    table rows;
    rows.add({{"Stored", look::strong},
              {stored ? "\"" + printable(*stored) + "\"" : std::string("none"),
               stored ? look::accent : look::faint},
              {"in " + std::string(rule_file), look::faint}});
    add_row(rows, "Last result", result);
    add_row(rows, "Last hello", hello);
    rows.print(out);
    return exit_done;
}

}  // namespace

void add_ioa_commands(CLI::App &app, command_line &line) {
    CLI::App *group =
        add_command(app, "ioa", "Shows the state of the custom IOA rules", "kzectl ioa status");
    group->require_subcommand(1);
    CLI::App *command = add_command(
        *group, "status", "Shows the stored identifier, the last result and the last hello",
        "kzectl ioa status",
        "The identifier is the one in the file; result and hello are the newest that reached\n"
        "the gateway.");
    on_chosen(command, line, [&line] { return status(line.out); });
}

}  // namespace kze::ctl
