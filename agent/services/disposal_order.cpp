#include "agent/services/disposal_order.h"

#include <utility>

#include "agent/common/module_frame.h"

namespace kze::services {
namespace {

namespace dsp = kzerespdsppl_re;
using nlohmann::json;

/* Texts of messages are UTF-8 where the library that read them checks it; this depends on nothing.
 */
std::string text_of(const json &value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json process_json(const dsp::kze_respdsp_res_process &process) {
    return {{"pid", process.pid()},
            {"create_time", process.create_time()},
            {"path", process.process_path()},
            {"md5", process.md5()}};
}

json task_json(const dsp::kze_respdsp_alert_info &task) {
    json processes = json::array();
    for (const dsp::kze_respdsp_res_process &process : task.proc_info()) {
        processes.push_back(process_json(process));
    }
    return {{"task_id", task.task_id()},
            {"alert_id", task.alert_id()},
            {"type", static_cast<int>(task.type())},
            {"task_type", static_cast<int>(task.task_type())},
            {"source", static_cast<int>(task.source())},
            {"processes", std::move(processes)}};
}

std::size_t entries_of(const dsp::kze_respdsp_icdt_req &request) {
    auto entries = static_cast<std::size_t>(request.alert_info_size());
    for (const dsp::kze_respdsp_alert_info &task : request.alert_info()) {
        entries += static_cast<std::size_t>(task.proc_info_size());
    }
    return entries;
}

/* What speaks against a request, and the code for it; empty when nothing does. */
std::string request_problem(std::string_view frame, dsp::kze_respdsp_icdt_req &request, int &code) {
    code = dsp::DSP_ERROR_AGENT_INVALID_DATA;
    if (std::string problem = module_frame_problem(frame, module_request, byte_order::big_endian);
        !problem.empty()) {
        return problem;
    }
    const std::string_view body = frame.substr(module_header_size);
    if (!request.ParseFromArray(body.data(), static_cast<int>(body.size()))) {
        return "its body is no disposal request";
    }
    code = dsp::DSP_ERROR_AGENT_INVALID_PARAM;
    if (request.alert_info().empty()) {
        return "it has no task";
    }
    if (const std::size_t entries = entries_of(request); entries > disposal_entries_bound) {
        return "it has " + std::to_string(entries) + " tasks and processes, more than the " +
               std::to_string(disposal_entries_bound) + " that are taken";
    }
    return {};
}

}  // namespace

std::string disposal_answer(const dsp::kze_respdsp_resp &answer) {
    return module_frame(answer.SerializeAsString(), module_response, byte_order::big_endian);
}

std::optional<disposal_order> disposal_order::read(std::string_view frame,
                                                   dsp::kze_respdsp_resp &refusal) {
    dsp::kze_respdsp_icdt_req request;
    int code = 0;
    const std::string problem = request_problem(frame, request, code);
    if (problem.empty()) {
        return disposal_order(request);
    }
    refusal.set_code(code);
    refusal.set_msg(problem);
    return std::nullopt;
}

disposal_order::disposal_order(const dsp::kze_respdsp_icdt_req &request)
    : order_({{"agent_id", request.agent_id()}, {"done", false}}) {
    json tasks = json::array();
    for (const dsp::kze_respdsp_alert_info &task : request.alert_info()) {
        tasks.push_back(task_json(task));
    }
    order_["tasks"] = std::move(tasks);
}

process_fate disposal_order::fate_of(const json &process, disposal_rules &rules) {
    const std::string description = text_of(process);
    const auto known = known_.find(description);
    if (known != known_.end()) {
        return known->second;
    }
    const described_process wanted{process["pid"], process["create_time"], process["path"],
                                   process["md5"]};
    return known_.emplace(description, dispose_of(wanted, rules)).first->second;
}

/* The first failure of an order is told in its answer, those of each task in the journal. */
void disposal_order::note_failure(json &task, int code, const std::string &reason) {
    if (!task.contains("failure")) {
        task["failure"] = reason;
        order_["failed_tasks"].push_back(task["task_id"]);
    }
    if (!order_.contains("code")) {
        order_["code"] = code;
        order_["msg"] = reason;
    }
}

void disposal_order::carry_out(disposal_rules rules) {
    order_["kill"] = rules.kill;
    order_["failed_tasks"] = json::array();
    for (json &task : order_["tasks"]) {
        if (task["type"] != static_cast<int>(dsp::DSP_TYPE_DISPOSE)) {
            note_failure(task, dsp::DSP_ERROR_NOT_SUPPORT,
                         "tasks of type " + task["type"].dump() + " are not supported");
            continue;
        }
        for (json &process : task["processes"]) {
            const process_fate met = fate_of(process, rules);
            process["fate"] = fate_name(met.what);
            process["code"] = met.code;
            process["reason"] = met.reason;
            ++counts_[met.what];
            if (met.what != fate::ended && met.what != fate::reported) {
                note_failure(task, met.code,
                             "process " + process["pid"].dump() + ": " + met.reason);
            }
        }
    }
    if (!order_.contains("code")) {
        const bool reported = count(fate::reported) != 0;
        order_["code"] =
            static_cast<int>(reported ? dsp::DSP_ERROR_NOT_RUN : dsp::DSP_ERROR_SUCCESS);
        order_["msg"] = summary();
    }
    order_["done"] = true;
}

std::string disposal_order::record() const {
    return text_of(order_);
}

dsp::kze_respdsp_resp disposal_order::answer() const {
    dsp::kze_respdsp_resp answer;
    answer.set_agent_id(order_["agent_id"].get<std::string>());
    answer.set_code(order_["code"].get<int>());
    answer.set_msg(order_["msg"].get<std::string>());
    for (const json &task : order_["failed_tasks"]) {
        answer.add_failed_tasks(task.get<std::string>());
    }
    return answer;
}

std::size_t disposal_order::count(fate what) const {
    const auto found = counts_.find(what);
    return found == counts_.end() ? 0 : found->second;
}

std::string disposal_order::summary() const {
    std::string text;
    for (const auto &[what, number] : counts_) {
        text += (text.empty() ? "" : ", ") + std::to_string(number) + " " + fate_name(what);
    }
    return text.empty() ? "no process" : text;
}

}  // namespace kze::services
