/*
 * The management commands: one row for each, with all that sets it apart. Free of state.
 */
#ifndef KZEMDLMGR_PLUGIN_KZEMM_COMMAND_H
#define KZEMDLMGR_PLUGIN_KZEMM_COMMAND_H

#include "config/kzemm_switch.h"
#include "engine/qd_client.h"

// What a task asks for. 0 is no type; an empty task has it.
enum KZEMM_TASK_TYPE : int {
    KZEMM_TASK_LINKAGE = 1,
    KZEMM_TASK_APPEND = 2,
    KZEMM_TASK_HUNTING = 3,
    KZEMM_TASK_CUSTOM_IOA = 4,
    KZEMM_TASK_LKGANAL = 5,
};

// How a request's body becomes a task's.
enum kzemm_body {
    KZEMM_BODY_FRAMED,    // arrives as a frame, which is checked and goes on as it is
    KZEMM_BODY_TO_FRAME,  // arrives bare and gets a frame
    KZEMM_BODY_BARE,      // arrives bare and stays so
};

struct kzemm_command {
    unsigned int cmd;  // of the request
    EMM_SWITCH_TYPE permitted_by;
    KZEMM_TASK_TYPE task;
    kzemm_body body;
    bool latest_only;  // a new task takes the place of those that wait
    int trace_type;    // of a coordinate order, the engine's number; 0: another order
};

constexpr kzemm_command kzemm_commands[] = {
    {102, EMM_SWITCH_IOA, KZEMM_TASK_CUSTOM_IOA, KZEMM_BODY_FRAMED, true, 0},
    {1002, EMM_SWITCH_HUNTING, KZEMM_TASK_HUNTING, KZEMM_BODY_FRAMED, true, QD_TRACE_HUNTING},
    {1004, EMM_SWITCH_LINKAGE, KZEMM_TASK_LINKAGE, KZEMM_BODY_TO_FRAME, false, QD_TRACE_LINKAGE},
    {1005, EMM_SWITCH_IOA, KZEMM_TASK_APPEND, KZEMM_BODY_TO_FRAME, false, QD_TRACE_APPEND},
    {1010, EMM_SWITCH_COLLECT, KZEMM_TASK_LKGANAL, KZEMM_BODY_BARE, true, 0},
};

// The row of a request's command; null for any other number.
constexpr const kzemm_command *find_command(unsigned int cmd) {
    for (const kzemm_command &each : kzemm_commands) {
        if (each.cmd == cmd) {
            return &each;
        }
    }
    return nullptr;
}

// The row that makes tasks of this type; null for what is no type.
constexpr const kzemm_command *find_command_of_task(int type) {
    for (const kzemm_command &each : kzemm_commands) {
        if (each.task == type) {
            return &each;
        }
    }
    return nullptr;
}

// Whether a number names a task type.
constexpr bool is_task_type(int type) {
    return find_command_of_task(type) != nullptr;
}

#endif
