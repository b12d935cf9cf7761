/* What the plug-in tells the gateway about custom IOA rules: results and hellos. */
#ifndef KZE_AGENT_CTL_VIEWS_IOA_REPORT_H
#define KZE_AGENT_CTL_VIEWS_IOA_REPORT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kze::ctl {

struct ioa_report {
    std::int64_t agent_id = 0;
    std::string rules_id;
    std::optional<int> res; /* of a result: 0, or the reported reason of the refusal */
};

/* Reads the content of a record of that gateway type; empty when it is no such report. */
std::optional<ioa_report> read_ioa_report(int type, std::string_view content);

/* "rules "7" accepted" or "rules "7" refused, res -4" for a result; "rules "7" announced" for a
 * hello, or "no rules yet" for that of a plug-in that never took a rule set. */
std::string ioa_report_text(const ioa_report &report);

}  // namespace kze::ctl

#endif
