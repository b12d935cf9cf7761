/* The commands of kzectl: one source file for each group, which adds its commands to the app. */
#ifndef KZE_AGENT_CTL_COMMANDS_COMMAND_LINE_H
#define KZE_AGENT_CTL_COMMANDS_COMMAND_LINE_H

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "agent/ctl/core/failure.h"
#include "agent/ctl/core/output.h"

namespace kze::ctl {

/* What is parsed, and how to print. Lives as long as main. One thread at a time. */
struct command_line {
    output out;
    /* The chosen command; runs after everything is parsed. It may throw failure. */
    std::function<exit_status()> chosen;
};

/* Adds a command with its one line of help, an example, and what else there is to know. */
CLI::App *add_command(CLI::App &to, const std::string &name, const std::string &help,
                      const std::string &example, const std::string &details = "");

constexpr unsigned int day_seconds = 86400;

/* Adds an option that takes seconds, a day at most, shown with its default. */
void add_seconds(CLI::App *command, const std::string &name, double &seconds,
                 const std::string &help);

/* Makes `run` what the line does when it names this command. */
void on_chosen(CLI::App *command, command_line &line, std::function<exit_status()> run);

void add_agent_commands(CLI::App &app, command_line &line);
void add_status_command(CLI::App &app, command_line &line);
void add_config_commands(CLI::App &app, command_line &line);
void add_disposal_commands(CLI::App &app, command_line &line);
void add_engine_commands(CLI::App &app, command_line &line);
void add_gateway_commands(CLI::App &app, command_line &line);
void add_bus_commands(CLI::App &app, command_line &line);
void add_request_commands(CLI::App &app, command_line &line);
void add_ioa_commands(CLI::App &app, command_line &line);
void add_lkg_commands(CLI::App &app, command_line &line);
void add_log_commands(CLI::App &app, command_line &line);
void add_pack_commands(CLI::App &app, command_line &line);
void add_watch_command(CLI::App &app, command_line &line);

}  // namespace kze::ctl

#endif
