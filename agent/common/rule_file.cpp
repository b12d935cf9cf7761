#include "agent/common/rule_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "agent/common/json_text.h"
#include "platform/common/descriptor.h"

namespace kze {
namespace {

using nlohmann::json;

constexpr std::array<std::string_view, 5> indicator_types = {"ip", "domain", "url", "md5",
                                                             "sha256"};
constexpr std::string_view ioa_rule_key = "rule=";
constexpr std::string_view version_key = "version=";

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

bool is_hex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/* A piece of foreign text for a message. */
std::string in_quotes(std::string_view text) {
    constexpr std::size_t shown = 60;
    std::string out(text.substr(0, shown));
    std::replace_if(out.begin(), out.end(), is_control, '?');
    return "\"" + out + (text.size() > shown ? "...\"" : "\"");
}

/* Digits alone, no leading zero, at most `bound`. */
bool is_number(std::string_view text, unsigned long long bound) {
    if (text.empty() || text.size() > 10 || (text.size() > 1 && text.front() == '0')) {
        return false;
    }
    unsigned long long value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + static_cast<unsigned int>(c - '0');
    }
    return value <= bound;
}

bool is_ioc_version(std::string_view text) {
    constexpr unsigned long long bound = 2147483647;
    const std::size_t dot = text.find('.');
    return dot != std::string_view::npos && is_number(text.substr(0, dot), bound) &&
           is_number(text.substr(dot + 1), bound);
}

bool is_indicator(std::string_view rule) {
    const std::size_t colon = rule.find(':');
    return colon != std::string_view::npos && colon + 1 < rule.size() &&
           std::find(indicator_types.begin(), indicator_types.end(), rule.substr(0, colon)) !=
               indicator_types.end();
}

bool is_pattern(std::string_view rule) {
    const std::size_t colon = rule.rfind(':');
    if (colon == std::string_view::npos || colon == 0) {
        return false;
    }
    const std::string_view bytes = rule.substr(colon + 1);
    return !bytes.empty() && bytes.size() % 2 == 0 &&
           std::all_of(bytes.begin(), bytes.end(), is_hex);
}

std::optional<rule_file> sound_or_problem(rule_file file, std::string &problem) {
    problem = version_problem(file.kind, file.version);
    if (!problem.empty()) {
        return std::nullopt;
    }
    return file;
}

/* A text of the object, or nothing and a problem. */
std::optional<std::string> text_of(const json &object, const char *key, std::string &problem) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        problem = std::string("no text \"") + key + "\"";
        return std::nullopt;
    }
    return found->get<std::string>();
}

bool take_indicators(const json &object, rule_file &file, std::string &problem) {
    const auto found = object.find("indicators");
    if (found == object.end() || !found->is_array()) {
        problem = "no array \"indicators\"";
        return false;
    }
    if (found->size() > rules_bound) {
        problem = "more than " + std::to_string(rules_bound) + " indicators";
        return false;
    }
    file.rules.reserve(found->size());
    for (const json &indicator : *found) {
        const std::string where = "indicator " + std::to_string(file.rules.size() + 1) + ": ";
        if (!indicator.is_string()) {
            problem = where + "no text";
            return false;
        }
        file.rules.push_back(indicator.get<std::string>());
        problem = rule_problem(file.kind, file.rules.back());
        if (!problem.empty()) {
            problem.insert(0, where);
            return false;
        }
    }
    return true;
}

std::optional<rule_file> parse_ioc(std::string_view text, std::string &problem) {
    const std::optional<json> object = parse_json(text, problem);
    if (!object) {
        return std::nullopt;
    }
    if (!object->is_object()) {
        problem = "no JSON object";
        return std::nullopt;
    }
    const std::optional<std::string> version = text_of(*object, "version", problem);
    const std::optional<std::string> form =
        version ? text_of(*object, "kind", problem) : std::nullopt;
    if (!form) {
        return std::nullopt;
    }
    if (*form != "full" && *form != "incremental") {
        problem = "\"kind\" is " + in_quotes(*form) + ", neither \"full\" nor \"incremental\"";
        return std::nullopt;
    }
    rule_file file;
    file.version = *version;
    file.full = *form == "full";
    if (!take_indicators(*object, file, problem)) {
        return std::nullopt;
    }
    return sound_or_problem(std::move(file), problem);
}

/* Takes one line of an IOA or MD file; returns what is wrong with it. */
std::string take_line(std::string_view line, rule_file &file) {
    if (file.version.empty()) {
        if (line.substr(0, version_key.size()) != version_key) {
            return "the version comes first, as in \"version=12\"";
        }
        file.version = line.substr(version_key.size());
        return version_problem(file.kind, file.version);
    }
    if (file.kind == rule_kind::ioa) {
        if (line.substr(0, ioa_rule_key.size()) != ioa_rule_key) {
            return "not a rule, as in \"rule=...\": " + in_quotes(line);
        }
        line.remove_prefix(ioa_rule_key.size());
    }
    if (file.rules.size() == rules_bound) {
        return "more than " + std::to_string(rules_bound) + " rules";
    }
    file.rules.emplace_back(line);
    return rule_problem(file.kind, file.rules.back());
}

std::optional<rule_file> parse_lines(rule_kind kind, std::string_view text, std::string &problem) {
    rule_file file;
    file.kind = kind;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.empty() || line.front() == '#') {
            continue;
        }
        problem = take_line(line, file);
        if (!problem.empty()) {
            problem.insert(0, "line " + std::to_string(number) + ": ");
            return std::nullopt;
        }
    }
    return sound_or_problem(std::move(file), problem);
}

std::string ioc_text(const rule_file &file) {
    std::string text = "{\n  \"version\": " + json(file.version).dump() +
                       ",\n  \"kind\": " + (file.full ? "\"full\"" : "\"incremental\"") +
                       ",\n  \"indicators\": [";
    const char *before = "\n    ";
    for (const std::string &rule : file.rules) {
        text += before + json(rule).dump(-1, ' ', false, json::error_handler_t::replace);
        before = ",\n    ";
    }
    return text + "\n  ]\n}\n";
}

/* Reads up to one byte more than is accepted. */
std::optional<std::string> read_whole(int file, std::string &problem) {
    std::string text;
    std::array<char, std::size_t{64} * 1024> block;
    for (;;) {
        const ssize_t got = read(file, block.data(), block.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            problem = std::strerror(errno);
            return std::nullopt;
        }
        text.append(block.data(), static_cast<std::size_t>(got));
        if (text.size() > rule_file_bytes_bound) {
            problem = "longer than " + std::to_string(rule_file_bytes_bound) + " bytes";
            return std::nullopt;
        }
        if (got == 0) {
            return text;
        }
    }
}

}  // namespace

std::optional<std::string> read_rule_text(const std::string &path, std::string &problem) {
    /* Opening a pipe that nobody writes must not wait. */
    const descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!file.valid() || fstat(file.get(), &info) != 0) {
        problem = path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    if (!S_ISREG(info.st_mode)) {
        problem = path + ": no regular file";
        return std::nullopt;
    }
    std::optional<std::string> text = read_whole(file.get(), problem);
    if (!text) {
        problem.insert(0, path + ": ");
    }
    return text;
}

std::optional<rule_file> read_rule_file(rule_kind kind, const std::string &path,
                                        std::string &problem) {
    const std::optional<std::string> text = read_rule_text(path, problem);
    if (!text) {
        return std::nullopt;
    }
    std::optional<rule_file> file = parse_rule_file(kind, *text, problem);
    if (!file) {
        problem.insert(0, path + ": ");
    }
    return file;
}

std::optional<rule_file> parse_rule_file(rule_kind kind, std::string_view text,
                                         std::string &problem) {
    if (text.size() > rule_file_bytes_bound) {
        problem = "longer than " + std::to_string(rule_file_bytes_bound) + " bytes";
        return std::nullopt;
    }
    return kind == rule_kind::ioc ? parse_ioc(text, problem) : parse_lines(kind, text, problem);
}

std::string version_problem(rule_kind kind, const std::string &version) {
    if (kind == rule_kind::ioc) {
        return is_ioc_version(version)
                   ? std::string()
                   : "version " + in_quotes(version) + " is no <major>.<minor>, as in \"5.1\"";
    }
    return is_number(version, 4294967295)
               ? std::string()
               : "version " + in_quotes(version) + " is no number from 0 to 4294967295";
}

std::string rule_problem(rule_kind kind, const std::string &rule) {
    if (rule.empty() || rule.size() > rule_bytes_bound) {
        return "a rule of " + std::to_string(rule.size()) + " bytes; 1 to " +
               std::to_string(rule_bytes_bound) + " are possible";
    }
    if (std::any_of(rule.begin(), rule.end(), is_control)) {
        return "control characters in " + in_quotes(rule);
    }
    if (kind == rule_kind::ioc && !is_indicator(rule)) {
        return "not an indicator, as in \"domain:name.example\": " + in_quotes(rule);
    }
    if (kind == rule_kind::md && !is_pattern(rule)) {
        return "not a pattern, as in \"Name.A:4d5a9000\": " + in_quotes(rule);
    }
    return "";
}

std::string rule_file_text(const rule_file &file) {
    if (file.kind == rule_kind::ioc) {
        return ioc_text(file);
    }
    std::string text(version_key);
    text += file.version + "\n";
    for (const std::string &rule : file.rules) {
        text +=
            (file.kind == rule_kind::ioa ? std::string(ioa_rule_key) : std::string()) + rule + "\n";
    }
    return text;
}

const char *rule_kind_name(rule_kind kind) {
    switch (kind) {
        case rule_kind::ioc:
            return "IOC";
        case rule_kind::ioa:
            return "IOA";
        case rule_kind::md:
            return "MD";
    }
    return "";
}

}  // namespace kze
