/* An order to dispose of processes, what becomes of it, and its answer. */
#ifndef KZE_AGENT_SERVICES_DISPOSAL_ORDER_H
#define KZE_AGENT_SERVICES_DISPOSAL_ORDER_H

#include <cstddef>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "agent/services/process_fate.h"
#include "new/kzerespdsppl_re.pb.h"

namespace kze::services {

/* Tasks and processes together that one order may have. */
constexpr std::size_t disposal_entries_bound = 100000;

/* The frame of an answer: a kze_respdsp_resp behind a big-endian header of a response. Any thread.
 */
std::string disposal_answer(const kzerespdsppl_re::kze_respdsp_resp &answer);

/* One order, from its frame to its answer. One thread at a time. */
class disposal_order {
  public:
    /* Reads a frame. None, with the answer that refuses it, when it holds no order. */
    static std::optional<disposal_order> read(std::string_view frame,
                                              kzerespdsppl_re::kze_respdsp_resp &refusal);

    /* Disposes of its processes, in their order. One that is described twice in the same way is
     * looked at once. */
    void carry_out(disposal_rules rules);

    /* For the journal: what was ordered, and once it is carried out what became of it. */
    std::string record() const;
    /* What became of it; to be called once it is carried out. */
    kzerespdsppl_re::kze_respdsp_resp answer() const;
    /* How many processes met that fate. */
    std::size_t count(fate what) const;
    /* "2 ended, 1 gone" */
    std::string summary() const;

  private:
    explicit disposal_order(const kzerespdsppl_re::kze_respdsp_icdt_req &request);

    process_fate fate_of(const nlohmann::json &process, disposal_rules &rules);
    void note_failure(nlohmann::json &task, int code, const std::string &reason);

    nlohmann::json order_;
    std::map<std::string, process_fate> known_; /* by the description */
    std::map<fate, std::size_t> counts_;
};

}  // namespace kze::services

#endif
