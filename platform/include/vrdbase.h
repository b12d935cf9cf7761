/* libvrdbase.so: the agent's log, and the number of this host. */
#ifndef KZEMDLMGR_PLATFORM_INCLUDE_VRDBASE_H
#define KZEMDLMGR_PLATFORM_INCLUDE_VRDBASE_H

#define VRDBASE_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Levels of the log: 0 the severest class (FATAL), 1 errors (ERROR), 2 warnings (WARN), 3 progress
 * (INFO), 4 verbose dumps (DEBUG). A level is written when it isn't above the current one, so that
 * level 0 always is. The current level comes from "@/../config/log.ini", section "log", key "level"
 * (0 to 4, 3 by default), where "@" is the directory of the running program.
 *
 * A record is one line:
 *   2024-05-01 12:34:56.123456 ERROR 4711 kzemm_work.cpp:42 init ipc failed
 * local time with microseconds, level word, thread id, source file and line, text. Control
 * characters of the text (C0 with tab and newline, DEL, C1, the Unicode line separators) and bytes
 * that aren't UTF-8 stand in it as \t, \n, \r or \xNN: no data can begin a line of its own. A text
 * longer than 64 KiB is cut there, and a mark with its full length follows.
 *
 * Each directory has one file, <last name of the directory>.log, which rotates at 10 MiB into
 * <name>.1.log, <name>.2.log and so on. A directory belongs to one process: two that share one
 * rotate each other's files. Every record is in the file when the call returns. While a file can't
 * be written (full disk, directory that can't be made) its records go to standard error, and the
 * file is tried again once a second; how many went elsewhere is the first thing it then says.
 *
 * All functions of the log may be called from any thread, also while the process ends, and between
 * fork and exec. None of them throws, and all leave errno as it was.
 */

/*
 * Directs what the calling thread logs from now on to `directory`, an absolute path or one that
 * begins with "@"; it is made with its parents (mode 0700) where missing. `files` is the number of
 * files it may hold, the current one included (1 to 100, else the nearer bound). Threads that name
 * the same directory share its file, and the first one's `files` counts. A null or empty directory,
 * or never calling this, means the host's log, "@/../var/log/host" with 5 files, which is looked up
 * once in a process. Failures show in the records only, as told above.
 */
VRDBASE_API void autolog_init(const char *directory, int files);

/* Non-zero when records of `level` are written now. One relaxed load: a change made by another
 * thread is seen soon, not at once. */
VRDBASE_API int error_output_check(int level);

/*
 * Writes one record to the calling thread's log, whatever the current level is: callers ask
 * error_output_check() first, for levels above 0. A level below 0 counts as 0, one above 4 as 4.
 * Of `source_file` only the base name is written; null is written as "-". Arguments are those of
 * printf and stay the caller's.
 */
VRDBASE_API void error_output(int level, const char *source_file, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/*
 * Writes one record with a numbering of its own: 0 error, 1 warning, 2 information, 3 debug (the
 * levels 1 to 4 of error_output). It asks for the level itself. The caller's text carries source
 * and line; their own field is "-:0".
 */
VRDBASE_API void kze_log_output(int level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* The current level, 0 to 4. */
VRDBASE_API int error_output_level(void);

/* Makes `level` the current one, for all threads, until the next change. 0, or -1 for a level
 * outside 0 to 4, which changes nothing. */
VRDBASE_API int error_output_set_level(int level);

/* Reads the level from log.ini again. A file or key that is missing or holds no level means the
 * default. Not for use inside a signal handler: it reads a file. */
VRDBASE_API void error_output_reload_level(void);

/*
 * A number for this host: the same over restarts, another one on another host, never 0. It is
 * derived from /etc/machine-id. Where that is missing, a random number is made once and kept in
 * "@/../var/lib/hostid"; where that can't be kept either, it is derived from the host's name.
 * Any thread; determined once in a process.
 */
VRDBASE_API unsigned int vrd_get_hostid(void);

#ifdef __cplusplus
}
#endif

/*
 * kze_log(level, format, ...): the way to log. Above level 0 it evaluates its arguments only when
 * the level is written. The source name is the base name of the file, known at compile time.
 */
#define kze_log(level, ...)                                                    \
    do {                                                                       \
        const int kze_log_level = (level);                                     \
        if (kze_log_level == 0 || error_output_check(kze_log_level) != 0)      \
            error_output(kze_log_level, __FILE_NAME__, __LINE__, __VA_ARGS__); \
    } while (0)

#endif
