#include "agent/central_config/modules.h"

#include <algorithm>
#include <map>

#include "agent/common/json_text.h"

namespace kze::config {
namespace {

bool is_flag(field_kind kind) {
    return kind == field_kind::digit_flag || kind == field_kind::word_flag;
}

std::string rendered(field_kind kind, const std::string &stored) {
    switch (kind) {
        case field_kind::digit_flag:
            return counts_as_true(stored) ? "1" : "0";
        case field_kind::word_flag:
            return counts_as_true(stored) ? "true" : "false";
        default:
            return stored;
    }
}

std::string check_flag(const std::string &given, std::string &stored_out) {
    if (given != "true" && given != "false" && given != "1" && given != "0") {
        return "is true, false, 1 or 0";
    }
    stored_out = given == "true" || given == "1" ? "true" : "false";
    return {};
}

std::string check_json_object(const std::string &given) {
    std::string problem;
    const auto parsed = parse_json(given, problem);
    if (!parsed) {
        return "is a JSON object: " + problem;
    }
    return parsed->is_object() ? std::string() : "is a JSON object";
}

}  // namespace

std::string module_description::path() const {
    return std::string("/mgr/") + name;
}

const module_field *module_description::find(std::string_view field) const {
    const auto found = std::find_if(fields.begin(), fields.end(),
                                    [&](const module_field &known) { return field == known.name; });
    return found == fields.end() ? nullptr : &*found;
}

const std::vector<module_description> &modules() {
    static const std::vector<module_description> all = {
        {"abnormal_login",
         {{"config", field_kind::text, "the rules' text"},
          {"abnormal_ip_login_enable", field_kind::digit_flag, "logins from unusual addresses"},
          {"abnormal_time_login_enable", field_kind::digit_flag, "logins at unusual times"},
          {"abnormal_scan_enable", field_kind::digit_flag, "unusual scans"}}},
        {"anti_bfa",
         {{"config", field_kind::text, "the rules' text"},
          {"enable", field_kind::word_flag, "brute-force defence as a whole"},
          {"ssh_enable", field_kind::word_flag, "that of SSH"}}},
        {"trust_ip", {{"white_ip", field_kind::json_object, "the trusted addresses"}}},
        {"base_drive",
         {{"enable", field_kind::digit_flag, "the drive switch"},
          {"collect_enable", field_kind::digit_flag, "the drive collect switch"}}},
    };
    return all;
}

const module_description *find_module(std::string_view name) {
    const auto found =
        std::find_if(modules().begin(), modules().end(),
                     [&](const module_description &known) { return name == known.name; });
    return found == modules().end() ? nullptr : &*found;
}

bool counts_as_true(std::string_view text) {
    /* What is in front of a 0 byte, as those see it who take it for a C text. */
    const std::string_view seen = text.substr(0, text.find('\0'));
    constexpr std::string_view word = "true";
    return seen == "1" || word.substr(0, seen.size()) == seen;
}

int read_module(store &from, const module_description &of, module_content &out) {
    std::vector<store_entry> entries;
    if (const int result = from.list(entries); result != STORE_OK) {
        return result;
    }
    std::map<std::string, store_value> stored;
    for (store_entry &entry : entries) {
        if (entry.module == of.path()) {
            stored[entry.key] = std::move(entry.value);
        }
    }
    module_content content;
    for (const module_field &field : of.fields) {
        const auto value = stored.find(std::string("/") + field.name);
        if (value == stored.end()) {
            content.missing.emplace_back(field.name);
        } else if (value->second.type != VALUE_STRING) {
            content.no_text.emplace_back(field.name);
        } else {
            content.fields.emplace_back(field.name, rendered(field.kind, value->second.text));
        }
    }
    out = std::move(content);
    return STORE_OK;
}

std::string check_field(const module_field &field, const std::string &given,
                        std::string &stored_out) {
    std::string problem;
    if (is_flag(field.kind)) {
        problem = check_flag(given, stored_out);
    } else if (given.find('\0') != std::string::npos) {
        problem = "is a text, without 0 bytes";
    } else if (field.kind == field_kind::json_object) {
        problem = check_json_object(given);
    }
    if (!problem.empty()) {
        return std::string(field.name) + " " + problem;
    }
    if (!is_flag(field.kind)) {
        stored_out = given;
    }
    return {};
}

}  // namespace kze::config
