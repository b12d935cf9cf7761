/* The configuration service: answers for whole modules, and announces their changes. */
#ifndef KZE_AGENT_SERVICES_CONFIG_SERVICE_H
#define KZE_AGENT_SERVICES_CONFIG_SERVICE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/central_config/store.h"
#include "agent/services/endpoint_service.h"

namespace kze::services {

constexpr char config_endpoint[] = "agt_cfgc";
/* Whom changes are announced to. */
constexpr char announced_endpoint[] = "agt_rpt";

constexpr unsigned int module_request_command = 1004;
constexpr unsigned int announcement_command = 1002;

/*
 * A module request and its answer are messages (vrdaux.h) named after the module; the request has
 * the field "module". The answer has the module's fields, without those that aren't stored, and
 * none for a module that isn't known. It is empty for a body that is no such request, and while the
 * store can't be read.
 *
 * The control request {"op":"announce","modules":[...]} sends one one-way message with a field for
 * each of the modules; "delivered" in the answer is false, with a "problem", when nobody takes it.
 * Threads: as its base.
 */
class config_service : public endpoint_service {
  public:
    /* The store lies in store_directory, and need not be there. */
    explicit config_service(const std::string &store_directory);

  protected:
    void on_request(vrd_addr_st *from, unsigned int request_id, unsigned int cmd,
                    std::string_view body) override;
    nlohmann::json on_control(const std::string &op, const nlohmann::json &request) override;
    void add_status(nlohmann::json &status) const override;

  private:
    std::string answer_for(const std::string &module);
    nlohmann::json announce(const std::vector<std::string> &modules);

    config::store store_;
    std::uint64_t answered_ = 0;
    std::uint64_t refused_ = 0; /* answered without fields: unknown, unreadable */
    std::uint64_t announced_ = 0;
};

}  // namespace kze::services

#endif
