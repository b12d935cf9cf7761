#include "datapath/kzemm_dispose.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include <google/protobuf/arena.h>

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

// For up to this many wanted nodes looking at every process is quicker than making an index.
constexpr int nodes_without_index = 16;

// A request grows with the product of nodes and processes. One beyond what a frame may carry can't
// be sent, and isn't built: a small event could ask for all of the host's memory.
constexpr size_t max_request_bytes = 0xA00000;
// What a process and an alert take of it at least, beside their texts.
constexpr size_t least_of_process = 2;
constexpr size_t least_of_alert = 42;

// What an event and its request may take of memory, beside their texts. A part takes some hundreds
// of bytes whatever it says: an event of the largest size exceeds this where its parts say next to
// nothing, in two to four bytes each.
constexpr size_t max_event_memory = size_t{1} << 30;

// What a message may hold of memory beyond its delivery.
constexpr size_t kept_bytes_limit = size_t{4} << 20;

// The memory that the last message needed. Taken whole by one delivery at a time; a second one that
// comes meanwhile does without.
std::atomic_flag s_kept_taken = ATOMIC_FLAG_INIT;
std::unique_ptr<char[]> s_kept;
size_t s_kept_bytes = 0;

// What the delivery on this thread may still allocate for its arena.
thread_local size_t s_arena_room = 0;

void *allocate_block(size_t size) {
    if (size > s_arena_room) {
        throw std::bad_alloc();
    }
    s_arena_room -= size;
    return ::operator new(size);
}

void free_block(void *block, size_t) {
    ::operator delete(block);
}

/*
 * The arena of one delivery, in kept memory where that is free: fresh memory for thousands of small
 * messages costs about as much as reading them.
 */
class delivery_arena {
  public:
    delivery_arena() {
        google::protobuf::ArenaOptions options;
        options.block_alloc = allocate_block;
        options.block_dealloc = free_block;
        if (kept.is_taken) {
            options.initial_block = s_kept.get();
            options.initial_block_size = s_kept_bytes;
        }
        s_arena_room = max_event_memory;
        arena.emplace(options);
    }

    ~delivery_arena() {
        const size_t used = arena->SpaceAllocated();
        arena.reset();
        if (kept.is_taken) {
            keep(used);
        }
    }

    delivery_arena(const delivery_arena &) = delete;
    delivery_arena &operator=(const delivery_arena &) = delete;

    Arena *get() { return &*arena; }

  private:
    struct kept_memory {
        const bool is_taken = !s_kept_taken.test_and_set(std::memory_order_acquire);
        ~kept_memory() {
            if (is_taken) {
                s_kept_taken.clear(std::memory_order_release);
            }
        }
    };

    static void keep(size_t bytes) {
        if (bytes > s_kept_bytes && bytes <= kept_bytes_limit) {
            s_kept.reset(new (std::nothrow) char[bytes]);
            s_kept_bytes = s_kept != nullptr ? bytes : 0;
        }
    }

    const kept_memory kept;
    std::optional<Arena> arena;
};

// False also when memory is short.
bool parse(kzav_trace_info &info, const char *bytes, size_t size) try {
    return info.ParseFromArray(bytes, static_cast<int>(size));
} catch (const std::bad_alloc &) {
    return false;
}

// Appends the message's bytes, in this state. False when there are too many, or memory is short.
bool append_in_state(kzav_trace_info &info, KZAV_DISPOSAL_STATE state, std::string &out) try {
    info.mutable_credible_event()->set_disposal_state(state);
    return info.AppendToString(&out);
} catch (const std::bad_alloc &) {
    return false;
}

// Takes the bytes of a part of the request from the room that is left for it. False when that is
// used up.
bool take_room(size_t &room, size_t bytes) {
    if (bytes > room) {
        return false;
    }
    room -= bytes;
    return true;
}

bool add_process(kze_respdsp_alert_info &to, const process_vertex &from, size_t &room) {
    const size_t texts = from.process_path().size() + from.process_md5().size();
    if (!take_room(room, texts + least_of_process)) {
        return false;
    }
    auto &process = *to.add_proc_info();
    process.set_pid(from.process_id());
    process.set_create_time(static_cast<uint64_t>(from.process_createtime()));
    process.set_process_path(from.process_path());
    process.set_md5(from.process_md5());
    return true;
}

bool add_matches_one_by_one(kze_respdsp_alert_info &to, const event_action &action, size_t &room) {
    for (const uint64_t wanted : action.alert_node_id()) {
        for (const process_vertex &process : action.process_list()) {
            if (process.node_id() == wanted && !add_process(to, process, room)) {
                return false;
            }
        }
    }
    return true;
}

// The same by way of an index from node to positions.
bool add_matches_by_index(kze_respdsp_alert_info &to, const event_action &action, size_t &room) {
    using entry = std::pair<uint64_t, int>;
    std::vector<entry> index;
    index.reserve(static_cast<size_t>(action.process_list_size()));
    for (int position = 0; position < action.process_list_size(); ++position) {
        index.emplace_back(action.process_list(position).node_id(), position);
    }
    std::sort(index.begin(), index.end());
    for (const uint64_t wanted : action.alert_node_id()) {
        auto each = std::lower_bound(index.begin(), index.end(), entry(wanted, 0));
        for (; each != index.end() && each->first == wanted; ++each) {
            if (!add_process(to, action.process_list(each->second), room)) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

bool add_matching_processes(kze_respdsp_alert_info &to, const event_action &action, size_t &room) {
    // Each node names one process as a rule.
    to.mutable_proc_info()->Reserve(
        std::min(action.alert_node_id_size(), action.process_list_size()));
    return action.alert_node_id_size() <= nodes_without_index
               ? add_matches_one_by_one(to, action, room)
               : add_matches_by_index(to, action, room);
}

namespace {

bool add_alert(kze_respdsp_icdt_req &to, const event_action &action, size_t &room) {
    if (!take_room(room, action.alert_id().size() + least_of_alert)) {
        return false;
    }
    auto &alert = *to.add_alert_info();
    alert.set_alert_id(action.alert_id());
    alert.set_task_id(gen_uuid());
    alert.set_type(kzerespdsppl_re::DSP_TYPE_DISPOSE);
    alert.set_source(kzerespdsppl_re::DSP_SOURCE_AGENT);
    alert.set_auto_clean_quar(false);
    alert.set_is_force_dsp(false);
    alert.set_opr_type(kzerespdsppl_re::DSP_OPR_UNKNOW);
    alert.set_task_type(kzerespdsppl_re::DSP_TASK_TYPE_AUTO);
    return add_matching_processes(alert, action, room);
}

// False when no frame could carry the request, or memory is short.
bool serialize_request(const kzav_trace_info &info, std::string &out) try {
    Arena own;
    Arena *const arena = info.GetArena() != nullptr ? info.GetArena() : &own;
    auto &request = *Arena::CreateMessage<kze_respdsp_icdt_req>(arena);
    request.set_agent_id(info.agent_id());
    size_t room = max_request_bytes;
    for (const event_action &action : info.credible_event().rule().match_action()) {
        if (!add_alert(request, action, room)) {
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

bool dispose(char *data, unsigned int len, vrd_ipc_st *ipc, vrd_addr_st *addr) {
    delivery_arena arena;
    auto &info = *Arena::CreateMessage<kzav_trace_info>(arena.get());
    if (!parse(info, data + sizeof(_module_header), len - sizeof(_module_header))) {
        kze_log(2, "parse qd_engine_sub_credible data to proto failed");
        return false;
    }
    if (!check_auto_dispose_data_valid(info)) {
        kze_log(2, "data for auto dispose is invalid");
        return false;
    }
    if (!check_auto_dispose_enable(info)) {
        kze_log(3, "credible scene dispose is disabled.");
        send_data_via_gw(KZEMM_DATA_CREDIBLE, data, len);
        return true;
    }
    _module_header header;  // the frame may lie at any address
    memcpy(&header, data, sizeof(header));
    if (!send_event_to_thtgw(info, &header)) {
        kze_log(1, "send_event_to_thtgw failed");
        return false;
    }
    if (!send_event_to_autodsp(info, &header, ipc, addr)) {
        kze_log(1, "send_event_to_autodsp failed");
        return false;
    }
    return true;
}

}  // namespace

bool do_auto_dispose(char *data, unsigned int len, vrd_ipc_st *ipc, vrd_addr_st *addr) try {
    kze_log(4, "start do auto dispose");
    if (data == nullptr || len == 0) {
        kze_log(2, "qd_engine_sub_credible data is null");
        return false;
    }
    if (check_msg_invalid(cmd_dispose, data, len, host_order) != 0) {
        kze_log(2, "credible(auto dispose) subscription data invalid");
        return false;
    }
    return dispose(data, len, ipc, addr);
} catch (const std::bad_alloc &) {
    kze_log(1, "no memory for auto dispose");
    return false;
}

bool check_auto_dispose_data_valid(const kzav_trace_info &info) {
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

bool check_auto_dispose_enable(const kzav_trace_info &info) {
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

bool set_data_dispose_state(kzav_trace_info &info, KZAV_DISPOSAL_STATE state, std::string &out) {
    if (!append_in_state(info, state, out)) {
        kze_log(2, "serialize trace info pb data failed.");
        return false;
    }
    return true;
}

bool send_event_to_thtgw(kzav_trace_info &info, const _module_header *header) try {
    std::string frame(sizeof(*header), '\0');  // the message goes straight behind its header
    if (!set_data_dispose_state(info, kzav_trace::DISPOSAL_STATE_AUTO_DISPOSING, frame)) {
        kze_log(2, "change data dispose state failed");
        return false;
    }
    const auto frame_len = static_cast<uint32_t>(frame.size());
    constexpr uint32_t header_len = sizeof(*header);
    write_module_head(frame.data(), header, frame_len - header_len, host_order);
    send_data_via_gw(KZEMM_DATA_CREDIBLE, frame.data(), frame_len);
    kze_log(3, "send credible data to thtgw success, data len: %zu", size_t{frame_len});
    return true;
} catch (const std::bad_alloc &) {
    kze_log(2, "change data dispose state failed");
    return false;
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
