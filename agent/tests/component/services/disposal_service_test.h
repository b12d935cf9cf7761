/* The disposal service, sent to as the plug-in does. */
#ifndef KZE_AGENT_TESTS_COMPONENT_SERVICES_DISPOSAL_SERVICE_TEST_H
#define KZE_AGENT_TESTS_COMPONENT_SERVICES_DISPOSAL_SERVICE_TEST_H

#include <optional>

#include "agent/services/record_forms.h"
#include "agent/tests/component/services/disposal_process.h"
#include "agent/tests/component/services/service_process.h"

namespace kze_test {

constexpr unsigned int disposal_command = 10001;

/* A hundred thousand processes under a sanitizer on a busy machine. */
constexpr std::chrono::duration<unsigned int> limit_of_large_orders{120};

class disposal_fixture : public service_test {
  protected:
    disposal_fixture() : service_test("agt_rpdsp") {}

    void kill_processes() { tree.write("config/agent.ini", "[disposal]\nkill = yes\n"); }

    kze_respdsp_resp order(const std::string &frame) {
        loop_thread loop;
        temp_endpoint sending(loop);
        const test_address service("agt_rpdsp");
        replies answers;
        answers.request(sending.get(), service.get(), disposal_command, frame,
                        limit_of_large_orders.count());
        const replies::reply answer =
            answers.wait(1, limit_of_large_orders + std::chrono::seconds(5)).at(0);
        EXPECT_EQ(answer.status, 0);
        EXPECT_EQ(answer.cmd, disposal_command);
        return read_answer(answer.body);
    }
    kze_respdsp_resp order(const std::vector<kze_respdsp_res_process> &processes) {
        return order(order_of(processes));
    }

    /* How many processes met that fate, as the service counts them. */
    int status_of(const std::string &fate) const { return status()["processes"][fate]; }

    /* The newest order in the journal; null when there is none. */
    nlohmann::json newest() {
        const auto found = reader_.newest(1);
        EXPECT_TRUE(found.has_value()) << reader_.problem();
        return !found || found->empty() ? nlohmann::json()
                                        : nlohmann::json::parse(found->front().data);
    }
    /* What became of the first process of the newest order's first task. */
    nlohmann::json newest_process() { return newest().at("tasks").at(0).at("processes").at(0); }

    kze::record_reader reader_{tree.path("var/lib/disposal.db").string(),
                               kze::services::disposal_orders};
};

}  // namespace kze_test

#endif
