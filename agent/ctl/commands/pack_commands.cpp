/* kzectl pack: the group, its list, and what its commands share. */
#include "agent/ctl/commands/pack_commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent/common/tree.h"
#include "agent/ctl/core/processes.h"
#include "platform/common/descriptor.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

look look_of(pack_verdict verdict) {
    switch (verdict) {
        case pack_verdict::goes:
            return look::good;
        case pack_verdict::too_old:
        case pack_verdict::obsolete:
            return look::warning;
        case pack_verdict::ignored:
        case pack_verdict::passed_over:
            break;
    }
    return look::faint;
}

json to_json(const pack_judgement &each) {
    json value = {{"name", each.pack.name},
                  {"form", pack_form_text(each.pack)},
                  {"verdict", verdict_text(each.verdict)},
                  {"reason", each.reason}};
    if (each.order != 0) {
        value["order"] = each.order;
    }
    if (each.pack.full) {
        value["full"] = version_text(*each.pack.full);
    }
    if (each.pack.incremental) {
        value["incremental"] = version_text(*each.pack.incremental);
    }
    return value;
}

void print_json(const std::vector<pack_judgement> &packs, const std::optional<ioc_version> &engine,
                const output &out) {
    json list = json::array();
    for (const pack_judgement &each : packs) {
        list.push_back(to_json(each));
    }
    json value = {{"directory", rule_directory_path()}, {"packs", list}};
    if (engine) {
        value["engine"] = version_text(*engine);
    }
    out.done("", value);
}

void print_table(const std::vector<pack_judgement> &packs, const std::optional<ioc_version> &engine,
                 const output &out) {
    if (packs.empty()) {
        out.line("nothing lies in " + printable(rule_directory_path()));
        return;
    }
    table rows;
    for (const pack_judgement &each : packs) {
        rows.add({{printable(each.pack.name), look::strong},
                  {pack_form_text(each.pack)},
                  {each.order == 0 ? "" : std::to_string(each.order)},
                  {verdict_text(each.verdict), look_of(each.verdict)},
                  {each.reason}});
    }
    rows.print(out);
    out.line(engine
                 ? "The engine's IOC version is " + version_text(*engine)
                 : std::string("The engine doesn't tell its IOC version: none counts as too old"));
}

exit_status list_packs(const output &out) {
    const pack_snapshot now = look_at_packs();
    std::vector<std::string> names;
    for (const rule_directory_file &file : now.files) {
        names.push_back(file.name);
    }
    const auto version = now.versions.find(rule_kind::ioc);
    const std::optional<ioc_version> engine =
        version == now.versions.end() ? std::nullopt : engine_ioc_version(version->second);
    const std::vector<pack_judgement> packs = judge_packs(names, engine);
    out.json() ? print_json(packs, engine, out) : print_table(packs, engine, out);
    return exit_done;
}

}  // namespace

std::string rule_directory_path() {
    std::string path = tree_path(rule_directory);
    if (path.empty()) {
        throw failure(exit_failed, "the tree's path is too long");
    }
    return path;
}

std::optional<std::vector<std::string>> pack_members(const std::string &path,
                                                     std::string &problem) {
    const finished_command tar = run_command({"/usr/bin/env", "LC_ALL=C", "tar", "--force-local",
                                              "--quoting-style=literal", "-tzf", path});
    if (tar.status != 0) {
        const std::size_t begin = std::min(tar.output.find_first_not_of('\n'), tar.output.size());
        problem = tar.output.substr(begin, tar.output.find('\n', begin) - begin);
        return std::nullopt;
    }
    std::vector<std::string> members;
    for (std::size_t at = 0; at < tar.output.size();) {
        const std::size_t end = std::min(tar.output.find('\n', at), tar.output.size());
        std::string member = tar.output.substr(at, end - at);
        members.push_back(member.compare(0, 2, "./") == 0 ? member.substr(2) : member);
        at = end + 1;
    }
    return members;
}

void fail_with_errno(const std::string &path) {
    throw failure(exit_failed, path + ": " + std::strerror(errno));
}

void sync_path(const std::string &path) {
    const descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid() || ::fsync(file.get()) != 0) {
        fail_with_errno(path);
    }
}

void add_pack_commands(CLI::App &app, command_line &line) {
    CLI::App *group =
        add_command(app, "pack", "Makes rule packs, drops them, and follows what becomes of them",
                    "kzectl pack make ioc-full rules.txt --version 5.0 && "
                    "kzectl pack drop ioc_full_5.0.tgz && kzectl pack watch --until-empty");
    group->require_subcommand(1);
    CLI::App *list = add_command(*group, "list",
                                 "Shows what lies in the rule directory and how it will be taken",
                                 "kzectl pack list");
    on_chosen(list, line, [&line] { return list_packs(line.out); });
    add_pack_make(*group, line);
    add_pack_drop(*group, line);
    add_pack_watch(*group, line);
}

}  // namespace kze::ctl
