/* kzectl pack make: from a file of rules to a pack that the plug-in takes and the engine reads. */
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "agent/common/rule_file.h"
#include "agent/ctl/commands/pack_commands.h"
#include "agent/ctl/core/processes.h"

namespace kze::ctl {
namespace {

namespace fs = std::filesystem;

struct make_options {
    std::string rules;
    std::string version;
    std::string from = "any";
    std::string output = ".";
    std::string corrupt;
};

/* What `make` makes: its name for a person, and of which kind. */
struct make_form {
    const char *command;
    const char *help;
    const char *example;
    rule_kind kind;
    bool full;
};

constexpr make_form forms[] = {
    {"ioc-full", "Makes a full pack of IOC indicators",
     "kzectl pack make ioc-full indicators.txt --version 5.0", rule_kind::ioc, true},
    {"ioc-inc", "Makes an incremental pack of IOC indicators",
     "kzectl pack make ioc-inc indicators.txt --from 5.0 --version 5.1", rule_kind::ioc, false},
    {"ioa", "Makes a pack of IOA rules", "kzectl pack make ioa rules.txt --version 12",
     rule_kind::ioa, true},
    {"md", "Makes a pack of MD patterns", "kzectl pack make md patterns.txt --version 7",
     rule_kind::md, true},
};

/* Removed with all in it when the object goes. One thread at a time. */
class scratch_directory {
  public:
    explicit scratch_directory(const std::string &in) : path_(in + "/.kzectl-pack-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) {
            fail_with_errno(in);
        }
    }
    ~scratch_directory() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    scratch_directory(const scratch_directory &) = delete;
    scratch_directory &operator=(const scratch_directory &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

bool is_final_format(rule_kind kind, const std::string &text) {
    if (kind == rule_kind::ioc) {
        return text.find_first_not_of(" \t\r\n") != std::string::npos &&
               text[text.find_first_not_of(" \t\r\n")] == '{';
    }
    return text.compare(0, 8, "version=") == 0 || text.find("\nversion=") != std::string::npos;
}

/* One rule a line; empty lines and those that begin with # are passed over. */
std::vector<std::string> listed_rules(rule_kind kind, const std::string &text,
                                      const std::string &path) {
    std::vector<std::string> rules;
    std::size_t number = 1;
    for (std::size_t at = 0; at < text.size(); ++number) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string rule = text.substr(at, end - at);
        at = end + 1;
        if (rule.empty() || rule.front() == '#') {
            continue;
        }
        const std::string problem = rule_problem(kind, rule);
        if (!problem.empty() || rules.size() == rules_bound) {
            throw failure(exit_failed, printable(path + ": line " + std::to_string(number)) + ": " +
                                           (problem.empty() ? "too many rules" : problem));
        }
        rules.push_back(rule);
    }
    return rules;
}

rule_file rules_of(const make_form &form, const make_options &options) {
    std::string problem;
    const std::optional<std::string> text = read_rule_text(options.rules, problem);
    if (!text) {
        throw failure(exit_failed, problem);
    }
    rule_file file;
    if (is_final_format(form.kind, *text)) {
        const std::optional<rule_file> read = parse_rule_file(form.kind, *text, problem);
        if (!read) {
            throw failure(exit_failed, options.rules + ": " + problem);
        }
        file = *read;
    } else {
        file.rules = listed_rules(form.kind, *text, options.rules);
    }
    file.kind = form.kind;
    file.full = form.full;
    if (!options.version.empty()) {
        file.version = options.version;
    }
    if (file.version.empty()) {
        throw failure(exit_usage, "a list of rules has no version: give it with --version");
    }
    problem = version_problem(form.kind, file.version);
    if (!problem.empty()) {
        throw failure(exit_usage, problem);
    }
    return file;
}

struct pack_names {
    std::string pack;
    std::string rule_file;
};

pack_names names_of(const make_form &form, const make_options &options, const rule_file &file) {
    if (form.kind == rule_kind::ioa) {
        return {ioa_pack_name, ioa_rule_file_name};
    }
    if (form.kind == rule_kind::md) {
        return {md_pack_name, md_rule_file_name};
    }
    const std::string base = form.full ? ioc_full_base_name(file.version)
                                       : ioc_incremental_base_name(options.from, file.version);
    return {base + ".tgz", base + ".json"};
}

void write_file(const std::string &path, const std::string &text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file) {
        fail_with_errno(path);
    }
}

/* The same rules make the same bytes, wherever and whenever. */
void archive(const std::string &directory, const std::string &member, const std::string &pack) {
    const finished_command tar =
        run_command({"/usr/bin/env", "LC_ALL=C", "tar", "--force-local", "--format=ustar",
                     "--mtime=@0", "--owner=0", "--group=0", "--numeric-owner", "--mode=0644",
                     "--use-compress-program=gzip -n", "-cf", pack, "-C", directory, member});
    if (tar.status != 0) {
        throw failure(exit_failed, "tar failed: " + printable(tar.output));
    }
}

/* A file that the engine refuses: cut off within its rules, or without its version. */
std::string refused_text(const rule_file &file) {
    std::string text = rule_file_text(file);
    return file.kind == rule_kind::ioc ? text.substr(0, text.size() / 2)
                                       : text.substr(text.find('\n') + 1) + "broken\n";
}

exit_status make_pack(const make_form &form, const make_options &options, const output &out) {
    const rule_file file = rules_of(form, options);
    if (form.kind == rule_kind::ioc && !form.full && options.from != "any" &&
        !version_problem(rule_kind::ioc, options.from).empty()) {
        throw failure(exit_usage, "--from: " + version_problem(rule_kind::ioc, options.from));
    }
    const pack_names names = names_of(form, options, file);
    const scratch_directory scratch(options.output);
    write_file(scratch.path() + "/" + names.rule_file,
               options.corrupt == "rules" ? refused_text(file) : rule_file_text(file));
    const std::string made = scratch.path() + "/" + names.pack;
    archive(scratch.path(), names.rule_file, made);
    if (options.corrupt == "archive") {
        fs::resize_file(made, fs::file_size(made) / 2);
    }
    sync_path(made);
    const std::string pack = options.output + "/" + names.pack;
    if (std::rename(made.c_str(), pack.c_str()) != 0) {
        fail_with_errno(pack);
    }
    out.done(pack, {{"pack", pack},
                    {"version", file.version},
                    {"rules", file.rules.size()},
                    {"rule_file", names.rule_file}});
    return exit_done;
}

void add_form(CLI::App &to, command_line &line, const make_form &form) {
    auto options = std::make_shared<make_options>();
    CLI::App *command = add_command(
        to, form.command, form.help, form.example,
        "Prints the pack's path. RULES holds one rule a line, with # before comments, or is a rule "
        "file as the engine reads it.");
    command->add_option("RULES", options->rules, "The rules")->required();
    command->add_option("--version", options->version,
                        "The version of the rules; without it that of the rule file");
    if (form.kind == rule_kind::ioc && !form.full) {
        command
            ->add_option("--from", options->from,
                         "The version that it starts from; stands in the name only")
            ->capture_default_str();
    }
    command->add_option("-o,--output", options->output, "The directory for the pack")
        ->capture_default_str()
        ->type_name("DIR");
    command
        ->add_option("--corrupt", options->corrupt,
                     "For tests: a pack that tar can't unpack (archive), or whose rule file the "
                     "engine refuses (rules)")
        ->check(CLI::IsMember({"archive", "rules"}).description(""));
    on_chosen(command, line,
              [&line, &form, options] { return make_pack(form, *options, line.out); });
}

}  // namespace

void add_pack_make(CLI::App &group, command_line &line) {
    CLI::App *make = add_command(group, "make", "Makes a pack from a file of rules",
                                 "kzectl pack make ioc-full indicators.txt --version 5.0");
    make->require_subcommand(1);
    for (const make_form &form : forms) {
        add_form(*make, line, form);
    }
}

}  // namespace kze::ctl
