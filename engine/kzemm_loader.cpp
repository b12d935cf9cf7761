#include "engine/kzemm_loader.h"

#include "kzautil.h"
#include "vrdbase.h"

namespace {

constexpr char qdccl_path[] = "@/../lib/libqdccl.so";
constexpr char kzethtgw_path[] = "@/../agent_plugins/libkzethtgw.3.so";

// One function to look up and its entry in the table.
struct symbol {
    const char *name;
    void **entry;
};

// Fails only when there is no handle either: a reload goes on with the old one.
int open_library(const char *path, void **handle) {
    char expanded[4096] = {};
    kze_dirutils_path_transform(path, expanded, sizeof(expanded));
    void *opened = nullptr;
    const int result = kze_dll_open(expanded, &opened);
    if (opened != nullptr) {
        *handle = opened;
    }
    if (result != 0 && *handle == nullptr) {
        kze_log(2, "dll open (%s) failed with error code = 0x%08x", expanded,
                static_cast<unsigned int>(result));
        return -1;
    }
    return 0;
}

// The entry is tested before it is stored: on a first load a missing symbol fails, on a reload it
// leaves its entry null and goes unnoticed.
int resolve(void *handle, const symbol &wanted) {
    void *address = nullptr;
    const int result = kze_dll_get_addr(handle, wanted.name, &address);
    if (result != 0 && *wanted.entry == nullptr) {
        kze_log(2, "dll get (%s) addr failed with error code = 0x%08x", wanted.name,
                static_cast<unsigned int>(result));
        return -1;
    }
    *wanted.entry = address;
    return 0;
}

}  // namespace

kzemm_loader &kzemm_loader::get_instance() {
    static kzemm_loader s_instance;
    return s_instance;
}

int kzemm_loader::init() {
    if (initialized) {
        kze_log(3, "kzemm_loader is initialized");
    }
    if (load_qdccl() != 0) {
        kze_log(2, "load lib qdccl failed");
        return -1;
    }
    if (load_kzethtgw() != 0) {
        kze_log(2, "load lib kzethtgw failed");
        return -1;
    }
    initialized = true;
    kze_log(3, "kzemm_loader init success");
    return 0;
}

void kzemm_loader::uninit() {
    kze_log(3, "kzemm_loader uninit");
    unload_qdccl();
    unload_kzethtgw();
    initialized = false;
}

int kzemm_loader::load_qdccl() {
    if (open_library(qdccl_path, &qdccl_handle) != 0) {
        return -1;
    }
    const symbol wanted[] = {
        {"x_client_start", &x_client_start},
        {"x_client_stop", &x_client_stop},
        {"x_client_engine_update", &x_client_engine_update},
        {"x_client_engine_update_async", &x_client_engine_update_async},
        {"x_client_engine_update_by_data", &x_client_engine_update_by_data},
        {"x_client_engine_control", &x_client_engine_control},
        {"x_client_engine_query_version", &x_client_engine_query_version},
        {"x_client_engine_query_version_str", &x_client_engine_query_version_str},
        {"x_client_free", &x_client_free},
        {"x_client_engine_set_runlevel", &x_client_engine_set_runlevel},
        {"x_client_engine_subscribe_alarm", &x_client_engine_subscribe_alarm},
        {"x_client_coordinate", &x_client_coordinate},
        {"x_client_subscribe_origin_data", &x_client_subscribe_origin_data},
        {"x_client_register_coordinate_cb", &x_client_register_coordinate_cb},
        {"x_client_coordinate_dispose_trc", &x_client_coordinate_dispose_trc},
        {"x_client_subscribe_clt", &x_client_subscribe_clt},
        {"x_client_engine_subscribe_credible", &x_client_engine_subscribe_credible},
        {"x_client_set_drive_switch", &x_client_set_drive_switch},
        {"x_client_get_drive_state", &x_client_get_drive_state},
        {"x_client_get_collect_state", &x_client_get_collect_state},
    };
    for (const symbol &each : wanted) {
        if (resolve(qdccl_handle, each) != 0) {
            return -1;
        }
    }
    kze_log(3, "load lib qdccl success");
    return 0;
}

int kzemm_loader::load_kzethtgw() {
    if (open_library(kzethtgw_path, &kzethtgw_handle) != 0) {
        return -1;
    }
    if (resolve(kzethtgw_handle, {"kzethtgw_async_send", &kzethtgw_async_send}) != 0) {
        return -1;
    }
    kze_log(3, "load lib kzethtgw success");
    return 0;
}

void kzemm_loader::unload_qdccl() {
    if (qdccl_handle == nullptr) {
        kze_log(2, "qdccl handle is null");
        return;
    }
    const int result = kze_dll_close(qdccl_handle);
    if (result != 0) {
        kze_log(2, "qdccl handle close failed wuth error code = 0x%08x",
                static_cast<unsigned int>(result));
    }
    qdccl_handle = nullptr;
}

void kzemm_loader::unload_kzethtgw() {
    if (kzethtgw_handle == nullptr) {
        kze_log(2, "thtgw handle is null");
        return;
    }
    const int result = kze_dll_close(kzethtgw_handle);
    if (result != 0) {
        kze_log(2, "thtgw handle close failed wuth error code = 0x%08x",
                static_cast<unsigned int>(result));
    }
    kzethtgw_handle = nullptr;
}
