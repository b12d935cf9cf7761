/* kzectl: drives and watches the agent whose tree it lies in. */

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>

#include "agent/common/standard_descriptors.h"
#include "agent/common/tree.h"
#include "agent/ctl/commands/command_line.h"
#include "vrdbase.h"

namespace kze::ctl {

CLI::App *add_command(CLI::App &to, const std::string &name, const std::string &help,
                      const std::string &example, const std::string &details) {
    CLI::App *command = to.add_subcommand(name, help);
    command->footer((details.empty() ? "" : details + "\n\n") + "Example:\n  " + example +
                    "\n\nkzectl --help lists the options of every command, and the exit statuses.");
    return command;
}

namespace {

/* What speaks against the text; a value that is not a number compares to no limit. */
std::string seconds_problem(const std::string &text) {
    char *end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    const bool is_whole = !text.empty() && *end == '\0';
    return is_whole && seconds >= 0 && seconds <= day_seconds
               ? std::string()
               : "\"" + printable(text) + "\" is no number of seconds from 0 to 86400";
}

}  // namespace

void add_seconds(CLI::App *command, const std::string &name, double &seconds,
                 const std::string &help) {
    command->add_option(name, seconds, help)
        ->capture_default_str()
        ->type_name("SECONDS")
        ->check(seconds_problem);
}

void on_chosen(CLI::App *command, command_line &line, std::function<exit_status()> run) {
    command->callback([&line, run = std::move(run)] { line.chosen = run; });
}

namespace {

constexpr const char *exit_help =
    "Exit status:\n"
    "  0  done\n"
    "  1  failed, or refused by the agent\n"
    "  2  the command line is wrong\n"
    "  3  the host, the engine or a service isn't running\n"
    "  4  timed out\n"
    "  5  no such key, record or log\n"
    "  11 to 14  a request was refused; kzectl request --help tells them apart\n";

struct global_options {
    bool json = false;
    std::string colour = "auto";
    std::string tree;
};

/* Everything else trusts that this is a tree: it removes files and ends processes in it. */
void must_be_tree(const std::string &home, const std::string &shown) {
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(home + "/kze_agent", ignored)) {
        throw failure(exit_usage, shown + " is no agent's tree: it has no bin/kze_agent");
    }
}

void set_tree(const std::string &tree) {
    must_be_tree(tree + "/bin", tree);
    char resolved[PATH_MAX] = "";
    if (realpath((tree + "/bin").c_str(), resolved) == nullptr) {
        throw failure(exit_usage, tree + ": " + std::strerror(errno));
    }
    setenv("KZE_AGENT_HOME", resolved, 1);
}

void add_global_options(CLI::App &app, global_options &options) {
    app.add_flag("--json", options.json, "Print JSON, for programs");
    app.add_option("--color", options.colour, "Colours: auto (on a terminal), always or never")
        ->check(CLI::IsMember({"auto", "always", "never"}).description(""))
        ->type_name("WHEN");
    app.add_option("--tree", options.tree, "The agent's tree, when it isn't the one kzectl is in")
        ->type_name("DIR");
    app.set_version_flag("--version", std::string("kzectl ") + KZE_VERSION);
}

void report(const command_line &line, exit_status status, const std::string &text) {
    if (line.out.json()) {
        line.out.json_line({{"ok", false}, {"error", text}, {"status", static_cast<int>(status)}});
        return;
    }
    std::fprintf(stderr, "kzectl: %s\n", text.c_str());
}

int usage_error(const CLI::App &app, const CLI::ParseError &error, command_line &line) {
    const CLI::App *named = &app;
    std::string command = "kzectl";
    while (!named->get_subcommands().empty()) {
        named = named->get_subcommands().front();
        command += " " + named->get_name();
    }
    std::string text = error.what();
    if (const auto unknown = app.remaining(true); !unknown.empty()) {
        text = "\"" + printable(unknown.front()) + "\" is nothing that " + command + " knows here";
    }
    report(line, exit_usage, text + "\nSee " + command + " --help.");
    return exit_usage;
}

int run(int argc, char **argv) {
    command_line line;
    global_options options;
    CLI::App app("Drives and watches the agent whose tree it lies in.", "kzectl");
    app.fallthrough();
    app.require_subcommand(1);
    app.get_formatter()->column_width(24);
    for (const char *type : {"INT", "UINT", "FLOAT"}) {
        app.get_formatter()->label(type, "N");
    }
    app.get_formatter()->label("TEXT", "");
    app.footer(std::string(exit_help) +
               "\nExample:\n  kzectl up --fresh && kzectl status\n\n"
               "kzectl COMMAND --help tells more about each command.");
    add_global_options(app, options);
    add_agent_commands(app, line);
    add_status_command(app, line);
    add_config_commands(app, line);
    add_engine_commands(app, line);
    add_gateway_commands(app, line);
    add_bus_commands(app, line);
    add_request_commands(app, line);
    add_ioa_commands(app, line);
    add_pack_commands(app, line);
    add_lkg_commands(app, line);
    add_disposal_commands(app, line);
    add_log_commands(app, line);
    add_watch_command(app, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &help) {
        app.exit(help);
        return exit_done;
    } catch (const CLI::ParseError &error) {
        line.out.set_json(options.json);
        return usage_error(app, error, line);
    }
    line.out.set_json(options.json);
    line.out.set_colour(options.colour == "always" ||
                        (options.colour == "auto" && output::terminal_takes_colours()));
    try {
        if (!options.tree.empty()) {
            set_tree(options.tree);
        } else {
            must_be_tree(tree_path("@"), tree_path("@/.."));
        }
        return line.chosen();
    } catch (const failure &failed) {
        report(line, failed.status(), failed.what());
        return failed.status();
    } catch (const std::exception &failed) {
        report(line, exit_failed, failed.what());
        return exit_failed;
    }
}

}  // namespace
}  // namespace kze::ctl

int main(int argc, char **argv) {
    if (!kze::fill_standard_descriptors()) {
        return kze::ctl::exit_failed;
    }
    /* The libraries' log is the host's. What goes wrong here is said on standard error. */
    error_output_set_level(0);
    const int status = kze::ctl::run(argc, argv);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::fprintf(stderr, "kzectl: what it prints could not be written\n");
        return status == kze::ctl::exit_done ? kze::ctl::exit_failed : status;
    }
    return status;
}
