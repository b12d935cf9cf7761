#include "agent/services/disposal_service.h"

#include <climits>
#include <cstdlib>

#include "agent/common/tree.h"
#include "agent/services/disposal_settings.h"
#include "vrdbase.h"

namespace kze::services {
namespace {

constexpr fate fates[] = {fate::ended,   fate::reported, fate::gone,  fate::another,
                          fate::refused, fate::invalid,  fate::failed};

std::string tree_without_links() {
    const std::string tree = tree_path("@/..");
    char resolved[PATH_MAX] = "";
    return ::realpath(tree.c_str(), resolved) == nullptr ? tree : std::string(resolved);
}

bool kills() {
    std::string problem;
    const std::optional<bool> set = disposal_kills(problem);
    if (!set) {
        kze_log(2, "no process is ended, for it can't be told whether to: %s", problem.c_str());
    }
    return set.value_or(false);
}

}  // namespace

disposal_service::disposal_service(const std::string &path)
    : endpoint_service(disposal_endpoint),
      tree_(tree_without_links()),
      journal_(path, disposal_orders) {}

void disposal_service::on_request(vrd_addr_st *from, unsigned int request_id, unsigned int cmd,
                                  std::string_view body) {
    if (cmd != disposal_command) {
        endpoint_service::on_request(from, request_id, cmd, body);
        return;
    }
    kzerespdsppl_re::kze_respdsp_resp refusal;
    std::optional<disposal_order> order = disposal_order::read(body, refusal);
    if (!order) {
        ++malformed_;
        kze_log(2, "a disposal order of %zu bytes is refused: %s", body.size(),
                refusal.msg().c_str());
        respond(from, request_id, cmd, disposal_answer(refusal));
        return;
    }
    carry_out(*order);
    respond(from, request_id, cmd, disposal_answer(order->answer()));
}

/* The order is in the journal before anything is done: a service that ends in between leaves it
 * there as begun. */
void disposal_service::carry_out(disposal_order &order) {
    ++orders_;
    const std::optional<std::int64_t> id = journal_.append({order.record()});
    const bool kill = kills();
    disposal_rules rules;
    rules.kill = kill;
    rules.tree = tree_;
    order.carry_out(rules);
    for (const fate each : fates) {
        fates_[each] += order.count(each);
    }
    if (!id || !journal_.replace(*id, order.record())) {
        note_unkept();
    }
    const kzerespdsppl_re::kze_respdsp_resp answer = order.answer();
    kze_log(3, "disposal order %lld, %s: %s; code %d, %s", static_cast<long long>(id.value_or(0)),
            kill ? "to end processes" : "to report them", order.summary().c_str(), answer.code(),
            answer.msg().c_str());
}

void disposal_service::note_unkept() {
    ++unkept_;
    kze_log(1, "a disposal order is not kept: %s", journal_.problem().c_str());
}

void disposal_service::add_status(nlohmann::json &status) const {
    std::string problem;
    const bool kill = disposal_kills(problem).value_or(false);
    status["kill"] = kill;
    status["orders"] = orders_;
    status["malformed"] = malformed_;
    status["unkept"] = unkept_;
    std::string summary = std::to_string(orders_) + " orders, ";
    for (const fate each : fates) {
        const auto found = fates_.find(each);
        const std::uint64_t count = found == fates_.end() ? 0 : found->second;
        status["processes"][fate_name(each)] = count;
        if (count != 0) {
            summary += std::to_string(count) + " " + fate_name(each) + ", ";
        }
    }
    status["summary"] = summary + (kill ? "ends processes" : "only reports");
}

}  // namespace kze::services
