#include "agent/ctl/core/services.h"

#include "agent/common/tree.h"
#include "agent/ctl/core/ask.h"
#include "agent/ctl/core/failure.h"
#include "agent/ctl/core/log_files.h"
#include "agent/ctl/core/output.h"
#include "agent/ctl/core/processes.h"

namespace kze::ctl {
namespace {

constexpr int look_period_ms = 20;

std::string words_of(const std::string &verb, const finished_command &done) {
    const std::string words = done.output.substr(0, done.output.find_last_not_of('\n') + 1);
    return words.empty() ? "vrd_services " + verb + " failed" : printable(words);
}

void wait_for_answer(const agent_service &service, const deadline &until) {
    while (!ask_if_running(service.endpoint, {{"op", "status"}}, until.left_seconds(ask_seconds))) {
        if (until.passed()) {
            throw failure(exit_timed_out,
                          std::string(service.spoken) + " is started but doesn't answer; see " +
                              log_path(service.log) + " and " + log_path("services"));
        }
        until.pause_ms(look_period_ms);
    }
}

}  // namespace

void order_service(const std::string &verb, const agent_service &service, const deadline &until) {
    const finished_command done = run_command({tree_path("@/vrd_services"), verb, service.name});
    if (done.status != 0) {
        throw failure(exit_failed, words_of(verb, done));
    }
    if (verb != "stop") {
        wait_for_answer(service, until);
    }
}

}  // namespace kze::ctl
