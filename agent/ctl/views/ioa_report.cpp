#include "agent/ctl/views/ioa_report.h"

#include <climits>
#include <nlohmann/json.hpp>

#include "agent/common/json_text.h"
#include "agent/ctl/core/output.h"
#include "engine/qd_client.h"

namespace kze::ctl {
namespace {

/* The identifier that is stored before any rule set was accepted. */
constexpr char no_rules_id[] = "0";

/* A member that is a whole number within bounds; empty for any other. */
std::optional<std::int64_t> member_in(const nlohmann::json &object, const char *key,
                                      std::int64_t low, std::int64_t high) {
    const auto found = object.find(key);
    return found == object.end() ? std::nullopt : number_in(*found, low, high);
}

}  // namespace

std::optional<ioa_report> read_ioa_report(int type, std::string_view content) {
    if (type != KZEMM_DATA_CTMIOA_RESULT && type != KZEMM_DATA_CTMIOA_HELLO) {
        return std::nullopt;
    }
    std::string problem;
    const std::optional<nlohmann::json> object = parse_json(content, problem);
    if (!object || !object->is_object()) {
        return std::nullopt;
    }
    const auto agent = member_in(*object, "agentId", INT64_MIN, INT64_MAX);
    const auto rules = object->find("rulesId");
    const auto res = member_in(*object, "res", INT_MIN, INT_MAX);
    const bool is_result = type == KZEMM_DATA_CTMIOA_RESULT;
    if (!agent || rules == object->end() || !rules->is_string() || (is_result && !res)) {
        return std::nullopt;
    }
    ioa_report report{*agent, rules->get<std::string>(), std::nullopt};
    if (is_result) {
        report.res = static_cast<int>(*res);
    }
    return report;
}

std::string ioa_report_text(const ioa_report &report) {
    if (!report.res && report.rules_id == no_rules_id) {
        return "no rules yet";
    }
    const std::string rules = "rules \"" + printable(report.rules_id) + "\" ";
    if (!report.res) {
        return rules + "announced";
    }
    return rules + (*report.res == 0 ? "accepted" : "refused, res " + std::to_string(*report.res));
}

}  // namespace kze::ctl
