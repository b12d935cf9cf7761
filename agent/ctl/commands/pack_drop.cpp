/* kzectl pack drop: into the rule directory, complete and at once. */
#include <fcntl.h>
#include <stdlib.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "agent/ctl/commands/pack_commands.h"
#include "platform/common/descriptor.h"

namespace kze::ctl {
namespace {

using nlohmann::json;

/* A copy beside its place, under a hidden name that fits no pack; removed unless it gets there. One
 * thread at a time. */
class staged_pack {
  public:
    staged_pack(const std::string &from, const std::string &directory);
    ~staged_pack() {
        if (!copy_.empty()) {
            ::unlink(copy_.c_str());
        }
    }
    staged_pack(const staged_pack &) = delete;
    staged_pack &operator=(const staged_pack &) = delete;

    const std::string &name() const { return name_; }
    const std::string &from() const { return from_; }
    /* True when a file of that name was there before. */
    bool put_in_place();

  private:
    std::string from_;
    std::string directory_;
    std::string name_;
    std::string copy_; /* empty once it is in its place */
};

void copy_bytes(int from, int to, const std::string &path) {
    for (;;) {
        const ssize_t sent = ::sendfile(to, from, nullptr, std::size_t{1} << 20);
        if (sent == 0) {
            return;
        }
        if (sent < 0 && errno != EINTR) {
            fail_with_errno(path);
        }
    }
}

staged_pack::staged_pack(const std::string &from, const std::string &directory)
    : from_(from), directory_(directory), name_(from.substr(from.rfind('/') + 1)) {
    const descriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!source.valid() || ::fstat(source.get(), &info) != 0) {
        throw failure(exit_usage, from + ": " + std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        throw failure(exit_usage, from + ": no regular file");
    }
    std::string pattern = directory + "/.kzectl-drop-XXXXXX";
    const descriptor target(::mkostemp(pattern.data(), O_CLOEXEC));
    if (!target.valid()) {
        fail_with_errno(directory);
    }
    copy_ = pattern;
    try {
        copy_bytes(source.get(), target.get(), copy_);
        if (::fchmod(target.get(), 0644) != 0 || ::fsync(target.get()) != 0) {
            fail_with_errno(copy_);
        }
    } catch (const failure &) {
        ::unlink(copy_.c_str());
        throw;
    }
}

bool staged_pack::put_in_place() {
    const std::string place = directory_ + "/" + name_;
    const bool replaces = ::access(place.c_str(), F_OK) == 0;
    if (std::rename(copy_.c_str(), place.c_str()) != 0) {
        fail_with_errno(place);
    }
    copy_.clear();
    return replaces;
}

std::string expected_member(const pack_name &pack) {
    switch (pack.place) {
        case pack_place::ioc:
            return pack.name.substr(0, pack.name.rfind('.')) + ".json";
        case pack_place::ioa_arrival:
        case pack_place::ioa_backup:
            return ioa_rule_file_name;
        case pack_place::md_arrival:
        case pack_place::md_backup:
            return md_rule_file_name;
        case pack_place::none:
            break;
    }
    return "";
}

std::vector<std::string> warnings_of(const staged_pack &staged) {
    const pack_name pack = read_pack_name(staged.name());
    std::vector<std::string> warnings = pack_name_warnings(staged.name());
    if (!pack.taken()) {
        return warnings;
    }
    std::string problem;
    const std::optional<std::vector<std::string>> members = pack_members(staged.from(), problem);
    const std::string wanted = expected_member(pack);
    if (!members) {
        warnings.push_back("tar can't unpack it: " + problem);
    } else if (std::find(members->begin(), members->end(), wanted) == members->end()) {
        warnings.push_back("it holds no " + wanted +
                           (members->empty() ? "" : "; it holds " + members->front()));
    }
    return warnings;
}

/* Lower versions first: who looks between two of them finds what comes first anyway. */
bool comes_before(const std::unique_ptr<staged_pack> &a, const std::unique_ptr<staged_pack> &b) {
    const auto version = [](const staged_pack &staged) {
        const pack_name pack = read_pack_name(staged.name());
        return pack.full.value_or(pack.incremental.value_or(ioc_version()));
    };
    return version(*a) < version(*b);
}

void print_drop(const staged_pack &staged, bool replaces, const output &out) {
    const std::vector<std::string> warnings = warnings_of(staged);
    const std::string form = pack_form_text(read_pack_name(staged.name()));
    if (out.json()) {
        out.done("", {{"pack", staged.name()},
                      {"form", form},
                      {"replaced", replaces},
                      {"warnings", warnings}});
        return;
    }
    out.line(out.paint(look::strong, printable(staged.name())) + "  " + form +
             (replaces ? ", in place of another file of this name" : ""));
    for (const std::string &warning : warnings) {
        out.line("  " + out.paint(look::warning, "warning: " + printable(warning)));
    }
}

exit_status drop(const std::vector<std::string> &files, const output &out) {
    const std::string directory = rule_directory_path();
    if (::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) {
        fail_with_errno(directory);
    }
    std::vector<std::unique_ptr<staged_pack>> packs;
    packs.reserve(files.size());
    for (const std::string &file : files) {
        packs.push_back(std::make_unique<staged_pack>(file, directory));
    }
    std::stable_sort(packs.begin(), packs.end(), comes_before);
    for (const auto &pack : packs) {
        print_drop(*pack, pack->put_in_place(), out);
    }
    sync_path(directory);
    return exit_done;
}

}  // namespace

void add_pack_drop(CLI::App &group, command_line &line) {
    auto files = std::make_shared<std::vector<std::string>>();
    CLI::App *command = add_command(
        group, "drop", "Puts packs into the rule directory under their names",
        "kzectl pack drop ioc_full_5.0.tgz md_linux.tgz",
        "Each one is copied beside its place and then renamed: the plug-in sees all of it or "
        "nothing. Warns of a name that is taken otherwise than it looks, or not at all.");
    command->add_option("FILE", *files, "The packs")->required();
    on_chosen(command, line, [&line, files] { return drop(*files, line.out); });
}

}  // namespace kze::ctl
