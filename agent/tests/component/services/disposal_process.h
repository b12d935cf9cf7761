/* Processes to dispose of, and orders that describe them. */
#ifndef KZE_AGENT_TESTS_COMPONENT_SERVICES_DISPOSAL_PROCESS_H
#define KZE_AGENT_TESTS_COMPONENT_SERVICES_DISPOSAL_PROCESS_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>

#include "agent/common/md5.h"
#include "agent/common/module_frame.h"
#include "agent/common/process_files.h"
#include "new/kzerespdsppl_re.pb.h"
#include "tests/support/child_process.h"
#include "tests/support/process_state.h"

namespace kze_test {

using kzerespdsppl_re::kze_respdsp_icdt_req;
using kzerespdsppl_re::kze_respdsp_res_process;
using kzerespdsppl_re::kze_respdsp_resp;

/* The live process as it is to be described. */
inline kze_respdsp_res_process described(pid_t pid) {
    const kze::descriptor directory = kze::open_process(static_cast<std::uint64_t>(pid));
    kze_respdsp_res_process process;
    process.set_pid(static_cast<std::uint64_t>(pid));
    process.set_create_time(kze::read_process_stat(directory.get()).value().start_ticks);
    process.set_process_path(kze::read_executable_path(directory.get()).bytes);
    process.set_md5(kze::md5_of_file("/proc/" + std::to_string(pid) + "/exe").value());
    return process;
}

/* A process that does nothing for longer than any test; ended with the object. */
class sleeper : public child_process {
  public:
    explicit sleeper(const std::string &program = "/bin/sleep") : child_process({program, "600"}) {
        /* Until then it is a copy of this process. */
        const std::string own = std::filesystem::read_symlink("/proc/self/exe");
        EXPECT_TRUE(eventually([&] { return path() != own; }));
    }
    std::string path() const {
        return kze::read_executable_path(kze::open_process(static_cast<std::uint64_t>(pid())).get())
            .bytes;
    }
    bool is_alive() const {
        const auto stat =
            kze::read_process_stat(kze::open_process(static_cast<std::uint64_t>(pid())).get());
        return stat && stat->state != 'Z';
    }
};

/* Adds a task with these processes. */
inline void add_task(kze_respdsp_icdt_req &order, const std::string &id,
                     const std::vector<kze_respdsp_res_process> &processes) {
    auto &task = *order.add_alert_info();
    task.set_task_id(id);
    task.set_alert_id("alert of " + id);
    task.set_type(kzerespdsppl_re::DSP_TYPE_DISPOSE);
    task.set_source(kzerespdsppl_re::DSP_SOURCE_AGENT);
    task.set_task_type(kzerespdsppl_re::DSP_TASK_TYPE_AUTO);
    for (const kze_respdsp_res_process &process : processes) {
        *task.add_proc_info() = process;
    }
}

inline std::string frame_of(const kze_respdsp_icdt_req &order) {
    return kze::module_frame(order.SerializeAsString(), module_request,
                             kze::byte_order::big_endian);
}

/* An order of one task, "task". */
inline std::string order_of(const std::vector<kze_respdsp_res_process> &processes) {
    kze_respdsp_icdt_req order;
    order.set_agent_id("agent");
    add_task(order, "task", processes);
    return frame_of(order);
}

inline kze_respdsp_resp read_answer(const std::string &frame) {
    EXPECT_EQ(kze::module_frame_problem(frame, module_response, kze::byte_order::big_endian), "");
    kze_respdsp_resp answer;
    EXPECT_TRUE(frame.size() >= kze::module_header_size &&
                answer.ParseFromString(frame.substr(kze::module_header_size)));
    return answer;
}

}  // namespace kze_test

#endif
