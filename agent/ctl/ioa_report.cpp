#include "agent/ctl/ioa_report.h"

#include <nlohmann/json.hpp>

#include "agent/common/json_text.h"
#include "agent/ctl/output.h"
#include "engine/qd_client.h"

namespace kze::ctl {
namespace {

/* The identifier that is stored before any rule set was accepted. */
constexpr char no_rules_id[] = "0";

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
    const auto agent = object->find("agentId");
    const auto rules = object->find("rulesId");
    const auto res = object->find("res");
    const bool is_result = type == KZEMM_DATA_CTMIOA_RESULT;
    if (agent == object->end() || !agent->is_number() || rules == object->end() ||
        !rules->is_string() || (is_result && (res == object->end() || !res->is_number_integer()))) {
        return std::nullopt;
    }
    ioa_report report{agent->get<std::int64_t>(), rules->get<std::string>(), std::nullopt};
    if (is_result) {
        report.res = res->get<int>();
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
