/*
 * The log of the message-bus objects, which has a format and levels of its own: 0 error, 1 warning,
 * 2 information, 3 debug.
 */
#ifndef KZEMDLMGR_DATAPATH_KZEMM_BUS_LOG_H
#define KZEMDLMGR_DATAPATH_KZEMM_BUS_LOG_H

#include <unistd.h>

#include "vrdbase.h"

#define KZEMM_BUS_LOG_WORD_0 "[ERROR]"
#define KZEMM_BUS_LOG_WORD_1 "[WARN]"
#define KZEMM_BUS_LOG_WORD_2 "[INFO]"
#define KZEMM_BUS_LOG_WORD_3 "[DEBUG]"

// level is a digit, format a literal.
#define kzemm_bus_log(level, format, ...)                                                        \
    kze_log_output(level, "[PID:%-5ld]\t" KZEMM_BUS_LOG_WORD_##level "\t%-10s [%s(%d)] " format, \
                   static_cast<long>(getpid()), "[kzemdlmgr]", __FILE_NAME__, __LINE__,          \
                   ##__VA_ARGS__)

#endif
