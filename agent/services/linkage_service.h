/* The linkage service: keeps the results of linkage analyses. */
#ifndef KZE_AGENT_SERVICES_LINKAGE_SERVICE_H
#define KZE_AGENT_SERVICES_LINKAGE_SERVICE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "agent/services/endpoint_service.h"
#include "agent/services/record_forms.h"

namespace kze::services {

constexpr char linkage_endpoint[] = "agt_lkg";
constexpr unsigned int linkage_reply_command = 5;

/* Keeps each one-way message of command 5; an empty one says that the analysis failed.
 * Threads: as its base. */
class linkage_service : public endpoint_service {
  public:
    /* The replies are kept in a file of this path. */
    explicit linkage_service(const std::string &path);

  protected:
    void on_message(unsigned int cmd, std::string_view body) override;
    void add_status(nlohmann::json &status) const override;

  private:
    void note_lost();
    void note_kept();

    record_writer replies_;
    std::uint64_t results_ = 0;
    std::uint64_t failures_ = 0;
    std::uint64_t lost_ = 0;        /* could not be written */
    std::uint64_t lost_in_row_ = 0; /* since one was written */
};

}  // namespace kze::services

#endif
