#include "datapath/kzemm_dispose.h"

#include <google/protobuf/arena.h>

#include <algorithm>
#include <climits>
#include <new>
#include <utility>
#include <vector>

#include "config/kzemm_config.h"
#include "datapath/kzemm_gateway.h"
#include "vrdbase.h"

namespace {

using google::protobuf::Arena;
using kzav_trace::event_action;
using kzav_trace::process_vertex;
using kzerespdsppl_re::kze_respdsp_alert_info;
using kzerespdsppl_re::kze_respdsp_icdt_req;

constexpr unsigned int cmd_dispose = 10001;
constexpr unsigned int time_limit_seconds = 15;
constexpr unsigned int max_retries = 3;
constexpr bool host_order = false;
constexpr bool net_order = true;

// What an IPC message has room for beside the header of the frame.
constexpr size_t max_request_bytes = VRD_IPC_MAX_BODY - sizeof(_module_header);
// What a process and an alert take of it at least, beside their texts.
constexpr size_t least_of_process = 2;
constexpr size_t least_of_alert = 42;

// Fills a request, as long as an IPC message can carry it. Both operations give false when it
// can't.
class request_builder {
  public:
    explicit request_builder(kze_respdsp_icdt_req &to_fill) : request(to_fill) {}

    bool add_alert(const event_action &action) {
        if (!take_room(action.alert_id().size() + least_of_alert)) {
            return false;
        }
        auto &alert = *request.add_alert_info();
        alert.set_alert_id(action.alert_id());
        alert.set_task_id(gen_uuid());
        alert.set_type(kzerespdsppl_re::DSP_TYPE_DISPOSE);
        alert.set_source(kzerespdsppl_re::DSP_SOURCE_AGENT);
        alert.set_auto_clean_quar(false);
        alert.set_is_force_dsp(false);
        alert.set_opr_type(kzerespdsppl_re::DSP_OPR_UNKNOW);
        alert.set_task_type(kzerespdsppl_re::DSP_TASK_TYPE_AUTO);
        return add_matching_processes(alert, action);
    }

  private:
    // In the order of the nodes, then of the processes, as often as one is named.
    bool add_matching_processes(kze_respdsp_alert_info &alert, const event_action &action) {
        using entry = std::pair<uint64_t, int>;  // a node and the position of a process
        std::vector<entry> index;
        index.reserve(static_cast<size_t>(action.process_list_size()));
        for (int position = 0; position < action.process_list_size(); ++position) {
            index.emplace_back(action.process_list(position).node_id(), position);
        }
        std::sort(index.begin(), index.end());
        for (const uint64_t wanted : action.alert_node_id()) {
            auto each = std::lower_bound(index.begin(), index.end(), entry(wanted, 0));
            for (; each != index.end() && each->first == wanted; ++each) {
                if (!add_process(alert, action.process_list(each->second))) {
                    return false;
                }
            }
        }
        return true;
    }

    bool add_process(kze_respdsp_alert_info &alert, const process_vertex &from) {
        if (!take_room(from.process_path().size() + from.process_md5().size() + least_of_process)) {
            return false;
        }
        auto &process = *alert.add_proc_info();
        process.set_pid(from.process_id());
        process.set_create_time(static_cast<uint64_t>(from.process_createtime()));
        process.set_process_path(from.process_path());
        process.set_md5(from.process_md5());
        return true;
    }

    bool take_room(size_t bytes) {
        if (bytes > room) {
            return false;
        }
        room -= bytes;
        return true;
    }

    kze_respdsp_icdt_req &request;
    size_t room = max_request_bytes;
};

// The message in these bytes, in the arena. Null when there is none, or memory is short.
kzav_trace_info *parse(Arena &arena, const char *bytes, size_t size) try {
    auto *const info = Arena::CreateMessage<kzav_trace_info>(&arena);
    return info->ParseFromArray(bytes, static_cast<int>(size)) ? info : nullptr;
} catch (const std::bad_alloc &) {
    return nullptr;
}

// False when no IPC message can carry the request, or memory is short.
bool serialize_request(const kzav_trace_info &info, std::string &out) try {
    Arena arena;
    auto &request = *Arena::CreateMessage<kze_respdsp_icdt_req>(&arena);
    request.set_agent_id(info.agent_id());
    request_builder builder(request);
    for (const event_action &action : info.credible_event().rule().match_action()) {
        if (!builder.add_alert(action)) {
            return false;
        }
    }
    return request.ByteSizeLong() <= max_request_bytes && request.SerializeToString(&out);
} catch (const std::bad_alloc &) {
    return false;
}

bool has_rule(const kzav_trace_info &info) {
    return info.has_credible_event() && info.credible_event().has_rule();
}

void make_request(auto_dispose_ipc_ctx *ctx) {
    vrd_ipc_make_request(ctx->ipc, ctx->addr, cmd_dispose, ctx->data, ctx->len, on_auto_dispose_cb,
                         ctx, time_limit_seconds);
}

}  // namespace

bool do_auto_dispose(char *data, unsigned int len, vrd_ipc_st *ipc, vrd_addr_st *addr) {
    kze_log(4, "start do auto dispose");
    if (data == nullptr || len == 0) {
        kze_log(2, "qd_engine_sub_credible data is null");
        return false;
    }
    if (check_msg_invalid(cmd_dispose, data, len, host_order) != 0) {
        kze_log(2, "credible(auto dispose) subscription data invalid");
        return false;
    }
    Arena arena;
    kzav_trace_info *const info =
        parse(arena, data + sizeof(_module_header), len - sizeof(_module_header));
    if (info == nullptr) {
        kze_log(2, "parse qd_engine_sub_credible data to proto failed");
        return false;
    }
    if (!check_auto_dispose_data_valid(*info)) {
        kze_log(2, "data for auto dispose is invalid");
        return false;
    }
    if (!check_auto_dispose_enable(*info)) {
        kze_log(3, "credible scene dispose is disabled.");
        send_data_via_gw(KZEMM_DATA_CREDIBLE, data, len);
        return true;
    }
    const _module_header header = read_module_header(data);
    if (!send_event_to_thtgw(*info, &header)) {
        kze_log(1, "send_event_to_thtgw failed");
        return false;
    }
    if (!send_event_to_autodsp(*info, &header, ipc, addr)) {
        kze_log(1, "send_event_to_autodsp failed");
        return false;
    }
    return true;
}

bool check_auto_dispose_data_valid(kzav_trace_info &info) {
    if (info.cmd() != kzav_trace::TRACE_CMD_CREDIBLE_EVENT) {
        kze_log(2, "get wrong qd_eng_sub_credible_cb data cmd: %d", info.cmd());
        return false;
    }
    if (!has_rule(info) || info.credible_event().rule().scene() == kzav_trace::EVENT_UNKNOW) {
        kze_log(2, "get unknow credible event scene.");
        return false;
    }
    kze_log(4, "check auto dispose data valid end");
    return true;
}

bool check_auto_dispose_enable(kzav_trace_info &info) {
    const kzemm_config &config = kzemm_config::get_instance();
    const int scene = info.credible_event().rule().scene();
    bool enabled = false;
    switch (scene) {
        case kzav_trace::EVENT_WEB:
            enabled = config.get_dispose_web_switch();
            kze_log(3, "get web credible event, check switch: dispose_web_switch[%d]", enabled);
            break;
        case kzav_trace::EVENT_PHISHING:
            enabled = config.get_dispose_phishing_switch();
            kze_log(3, "get phishing credible event, check switch: dispose_phishing_switch[%d]",
                    enabled);
            break;
        default:
            kze_log(2, "get unknow credible event scene: %d", scene);
            break;
    }
    kze_log(4, "check auto dispose switch end");
    return enabled;
}

bool set_data_dispose_state(kzav_trace_info &info, KZAV_DISPOSAL_STATE state, size_t &size) try {
    info.mutable_credible_event()->set_disposal_state(state);
    size = info.ByteSizeLong();
    if (size > INT_MAX) {
        kze_log(2, "serialize trace info pb data failed.");
        return false;
    }
    return true;
} catch (const std::bad_alloc &) {
    kze_log(2, "serialize trace info pb data failed.");
    return false;
}

bool send_event_to_thtgw(kzav_trace_info &info, const _module_header *header) {
    size_t size = 0;
    if (!set_data_dispose_state(info, kzav_trace::DISPOSAL_STATE_AUTO_DISPOSING, size)) {
        kze_log(2, "change data dispose state failed");
        return false;
    }
    uint32_t frame_len = 0;
    const malloc_ptr frame(alloc_frame_behind_head(size, frame_len));
    if (frame == nullptr) {
        kze_log(2, "add module header failed");
        return false;
    }
    // Straight into the frame: an event may be of megabytes.
    info.SerializeWithCachedSizesToArray(
        reinterpret_cast<unsigned char *>(frame.get() + sizeof(*header)));
    write_module_head(frame.get(), header, static_cast<uint32_t>(size), host_order);
    send_data_via_gw(KZEMM_DATA_CREDIBLE, frame.get(), frame_len);
    kze_log(3, "send credible data to thtgw success, data len: %zu", size_t{frame_len});
    return true;
}

bool send_event_to_autodsp(const kzav_trace_info &info, const _module_header *header,
                           vrd_ipc_st *ipc, vrd_addr_st *addr) {
    std::string text;
    if (!build_auto_dispose_pbdata(info, text)) {
        kze_log(2, "build auto dispose pbdata failed.");
        return false;
    }
    uint32_t frame_len = 0;
    malloc_ptr frame(string_data_add_module_head(text, header, frame_len, net_order));
    if (frame == nullptr) {
        kze_log(2, "add module header failed");
        return false;
    }
    auto *const ctx = new (std::nothrow) auto_dispose_ipc_ctx{ipc, addr, nullptr, frame_len, 0};
    if (ctx == nullptr) {
        kze_log(2, "new auto dispose ipc ctx failed");
        return false;
    }
    ctx->data = frame.release();
    make_request(ctx);
    kze_log(3, "send auto dispose task to rpdsp, data len: %zu", size_t{frame_len});
    return true;
}

bool build_auto_dispose_pbdata(const kzav_trace_info &info, std::string &out) {
    if (!has_rule(info)) {
        kze_log(2, "trace_info data invalid");
        return false;
    }
    if (info.credible_event().rule().match_action().empty()) {
        kze_log(3, "no action need dispose.");
        return false;
    }
    if (!serialize_request(info, out)) {
        kze_log(1, "serialize auto dispose data failed.");
        return false;
    }
    return true;
}

void on_auto_dispose_cb(int err, unsigned int, const char *, unsigned int, void *context) {
    auto *const ctx = static_cast<auto_dispose_ipc_ctx *>(context);
    if (err < 0) {
        kze_log(2, "auto dispose task to rpdsp failed, err: %s", vrd_ipc_strerror(err));
        if (ctx->retry < max_retries) {
            ++ctx->retry;
            // The next reply may come, on another thread, before this returns.
            const unsigned int retry = ctx->retry;
            const size_t len = ctx->len;
            make_request(ctx);
            kze_log(3, "send auto dispose task to rpdsp %d time, data len: %zu",
                    static_cast<int>(retry), len);
            return;
        }
        kze_log(2, "auto dispose task to rpdsp failed by %d times, stop retry",
                static_cast<int>(max_retries));
    } else {
        kze_log(3, "auto dispose task to rpdsp success, retry time: %d",
                static_cast<int>(ctx->retry));
    }
    free(ctx->data);
    delete ctx;
}
