/* The disposal service: ends the processes that an order describes, or only reports them. */
#ifndef KZE_AGENT_SERVICES_DISPOSAL_SERVICE_H
#define KZE_AGENT_SERVICES_DISPOSAL_SERVICE_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "agent/services/disposal_order.h"
#include "agent/services/endpoint_service.h"
#include "agent/services/record_forms.h"

namespace kze::services {

constexpr char disposal_endpoint[] = "agt_rpdsp";
constexpr unsigned int disposal_command = 10001;

/*
 * A request of command 10001 is an order: it goes into the journal, is carried out, what became of
 * its processes goes into the journal too, and then it is answered. Whether processes are ended is
 * read anew for each order (disposal_settings.h). Threads: as its base.
 */
class disposal_service : public endpoint_service {
  public:
    /* The journal is a file of this path. */
    explicit disposal_service(const std::string &path);

  protected:
    void on_request(vrd_addr_st *from, unsigned int request_id, unsigned int cmd,
                    std::string_view body) override;
    void add_status(nlohmann::json &status) const override;

  private:
    void carry_out(disposal_order &order);
    void note_unkept();

    const std::string tree_;
    record_writer journal_;
    std::uint64_t orders_ = 0;
    std::uint64_t malformed_ = 0;
    std::uint64_t unkept_ = 0; /* orders that are not in the journal, or not as they ended */
    std::map<fate, std::uint64_t> fates_;
};

}  // namespace kze::services

#endif
