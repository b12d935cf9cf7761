/* kzectl engine credible: a credible event about live processes, delivered by the engine. */
#include "agent/ctl/commands/credible_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "agent/ctl/core/ask.h"
#include "agent/ctl/core/credible_event.h"
#include "platform/common/descriptor.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

constexpr int highest_enumerator = 1000000;

struct command_options {
    credible_options event;
    std::string scene;
    std::string output;
};

int scene_of(const std::string &text) {
    if (text == "web") {
        return 1;
    }
    if (text == "phishing") {
        return 2;
    }
    char *end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || number < 0 || number > highest_enumerator) {
        throw failure(exit_usage, "no scene \"" + printable(text) +
                                      "\"; give web, phishing or the number of another");
    }
    return static_cast<int>(number);
}

void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        throw failure(exit_failed, "can't write " + path);
    }
}

/* A file for the engine to read, gone with the object. One thread at a time. */
class handed_file {
  public:
    explicit handed_file(const std::string &bytes)
        : path_((std::filesystem::temp_directory_path() / "kzectl_credible_XXXXXX").string()) {
        const descriptor file(::mkostemp(path_.data(), O_CLOEXEC));
        if (!file.valid()) {
            throw failure(exit_failed, "can't make a file in the temporary directory");
        }
        write_file(path_, bytes);
    }
    ~handed_file() { ::unlink(path_.c_str()); }
    handed_file(const handed_file &) = delete;
    handed_file &operator=(const handed_file &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

exit_status credible(command_options options, const output &out) {
    options.event.scene = scene_of(options.scene);
    const std::string frame = credible_frame(options.event);
    if (!options.output.empty()) {
        write_file(options.output, frame);
        out.done("Written to " + options.output,
                 {{"file", options.output}, {"size", frame.size()}});
        return exit_done;
    }
    const handed_file file(frame);
    json answer =
        ask(engine_endpoint, {{"op", "push"}, {"kind", "credible"}, {"file", file.path()}});
    answer["size"] = frame.size();
    out.done("The engine delivers a credible event of " + std::to_string(frame.size()) + " bytes",
             answer);
    return exit_done;
}

}  // namespace

void add_credible_command(CLI::App &group, command_line &line) {
    auto options = std::make_shared<command_options>();
    CLI::App *command = add_command(
        group, "credible", "Lets the engine deliver a credible event about live processes",
        "kzectl engine credible --scene web --pid 4711",
        "The event has a rule, its actions with the processes (creation time, path, MD5, command "
        "line) and\ntheir parents, alerts, and fields that its schema doesn't know.");
    command->add_option("--scene", options->scene, "web, phishing or a number")
        ->required()
        ->type_name("SCENE");
    command
        ->add_option("--pid", options->event.pids,
                     "The processes to dispose of, dealt out to the actions in turn")
        ->required();
    command->add_option("--actions", options->event.actions, "How many actions the rule has")
        ->capture_default_str()
        ->check(CLI::Range(1U, 10000U).description(""));
    command->add_flag("--reused", options->event.reused,
                      "Describe not these processes but earlier ones that had their ids");
    command
        ->add_option("--malformed", options->event.malformed,
                     "With a defect: version, length, empty (less than a header), body, cmd, "
                     "no-rule, no-scene or no-action")
        ->check(CLI::IsMember(credible_defects).description(""));
    command->add_option("-o,--output", options->output,
                        "Write the event's bytes to a file, and deliver nothing");
    on_chosen(command, line, [&line, options] { return credible(*options, line.out); });
}

}  // namespace kze::ctl
