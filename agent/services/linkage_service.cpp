#include "agent/services/linkage_service.h"

#include <cinttypes>

#include "vrdbase.h"

namespace kze::services {

linkage_service::linkage_service(const std::string &path)
    : endpoint_service(linkage_endpoint), replies_(path, linkage_replies) {}

void linkage_service::on_message(unsigned int cmd, std::string_view body) {
    if (cmd != linkage_reply_command) {
        endpoint_service::on_message(cmd, body);
        return;
    }
    ++(body.empty() ? failures_ : results_);
    if (!replies_.append({body})) {
        note_lost();
        return;
    }
    note_kept();
    kze_log(3, "linkage reply, %zu bytes%s", body.size(), body.empty() ? ": a failure" : "");
}

/* The first loss at once, the others as a sum when it is over. */
void linkage_service::note_lost() {
    ++lost_;
    if (++lost_in_row_ == 1) {
        kze_log(1, "a linkage reply is lost: %s", replies_.problem().c_str());
    }
}

void linkage_service::note_kept() {
    if (lost_in_row_ != 0) {
        kze_log(1, "%" PRIu64 " linkage replies were lost, they are kept again", lost_in_row_);
        lost_in_row_ = 0;
    }
}

void linkage_service::add_status(nlohmann::json &status) const {
    status["results"] = results_;
    status["failures"] = failures_;
    status["lost"] = lost_;
    status["summary"] = std::to_string(results_) + " results, " + std::to_string(failures_) +
                        " failures" + (lost_ == 0 ? "" : ", " + std::to_string(lost_) + " lost");
}

}  // namespace kze::services
