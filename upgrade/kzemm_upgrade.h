/*
 * The upgrade relay: finds the rule packs of the engine's IOC, IOA and MD capabilities in the rule
 * directory, unpacks them, hands them to the engine and decides by its answer whether a pack stays.
 *
 * Its duties are one source file each: the frame in kzemm_upgrade.cpp, the file utilities in
 * kzemm_upgrade_files.cpp, MD and IOA packs in kzemm_upgrade_engine.cpp, IOC packs in
 * kzemm_upgrade_ioc.cpp.
 */
#ifndef KZEMDLMGR_UPGRADE_KZEMM_UPGRADE_H
#define KZEMDLMGR_UPGRADE_KZEMM_UPGRADE_H

#include <pthread.h>

#include <string>
#include <vector>

#include "engine/qd_client.h"
#include "upgrade/kzemm_ioc_list.h"
#include "vrdcl_ev.h"

/*
 * What the relay's source files share beside the object; there is one relay.
 *
 * Threads: deliberately unlocked. The paths are written on the upgrade thread before an
 * asynchronous update is asked for and read by the callback that ends it; until that callback has
 * set the result, the upgrade thread leaves all of it alone.
 */
struct kzemm_upgrade_state {
    // Set by the relay's constructor when the debug marker file exists, never cleared.
    static bool s_debug_adv_threat;
    static std::string s_md_tgz_path;  // backup pack of the MD update in work
    static std::string s_md_cfg_path;  // its unpacked configuration file
    // -16: an update is pending, until its callback or the next construction of the relay; -5: the
    // callback named another engine; -1: the update call failed; 0: success; anything else is the
    // engine's own result.
    static int s_md_last_result;
    // Failed MD updates since the last success, deletion or arrival of a new pack.
    static int s_md_retry_times;
};

/*
 * Threads: made, initialized, uninitialized and destroyed on the worker thread; everything else
 * runs on the upgrade thread that init makes, but for on_md_engine_update_cb. No lock.
 *
 * Where memory runs out, upgrade_ioc_handle and upgrade_eng_handle end with -1 and a line at level
 * 1, and the next tick begins anew. What they call to fill lists and to note the MD paths throws
 * std::bad_alloc.
 */
class CUpgradeRelay {
  public:
    // The pack families of upgrade_eng_handle. These are not the engine client's numbers, whose
    // names they hide inside the class: there, those are ::ENGINE_IOA and ::ENGINE_MD.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
    enum engine_type_e : int {
        ENGINE_IOA = 1,
        ENGINE_MD = 2,
    };
#pragma GCC diagnostic pop

    // ---- frame (kzemm_upgrade.cpp) ----

    // Looks for the debug marker file, and takes back the mark of an update that never ended.
    CUpgradeRelay();
    // The thread must have been joined by uninit.
    ~CUpgradeRelay();
    CUpgradeRelay(const CUpgradeRelay &) = delete;
    CUpgradeRelay &operator=(const CUpgradeRelay &) = delete;

    // Starts the upgrade thread. 0, also when it runs already, or -1.
    int init();
    // Ends the thread and waits for it: for a running pass too, which can't be interrupted and
    // may take minutes. 0, or -1 when there is no thread.
    int uninit();
    // Stops the timer, on the upgrade thread.
    void clear();
    // Tells the upgrade thread to end; waits for nothing.
    void stop_thread();
    // Arms the tick on the calling thread's loop, the first one a whole interval from now. 0, also
    // when it is armed already, or -1.
    int start_upgrade_timer();
    void stop_upgrade_timer();
    // Turns the event loop, about ten times a second, until stop_thread.
    void upgrade_thread_loop();
    // One tick: a pass for each engine whose switch is on, in the order IOC, IOA, MD. The timer's
    // user is the relay.
    static void timer_upgrade_callback(cl_timerplus *timer);

    // ---- files (kzemm_upgrade_files.cpp) ----

    // Runs a command line, at most `times` times, with a second's sleep behind each failure. 0,
    // or -1 when none succeeded, the text is null or `times` is below 1.
    static int retry_createprocess(const char *command, int times);
    // Unpacks a pack into a directory with tar, in at most four attempts. 0 or -1. The suffix has
    // no effect.
    static int unzip_upgrade_rule(const char *pack, const char *directory, const char *suffix);
    // Appends the bare names of a directory's entries that match the pattern (fnmatch), of whatever
    // kind, in the directory's own order. A directory that can't be opened appends nothing.
    static void list_files(const char *pattern, std::vector<std::string> &names,
                           const char *directory);
    // Keeps a copy of a file that the engine refused with this code, below the rule directory in
    // tmp_dir. A failure only costs a log line.
    static void test_for_solve(const char *path, int error);

    // ---- MD and IOA packs (kzemm_upgrade_engine.cpp) ----

    // One pass: takes up a pack that has arrived or one left from an earlier pass, unpacks it and
    // hands it to the engine. 0, also when there is none; anything else is a failure.
    int upgrade_eng_handle(engine_type_e type);
    // Hands an unpacked pack to its engine and deals with the two files by its answer. The result
    // of upgrade_ioa_engine or upgrade_md_engine.
    static int upgrade_engine(engine_type_e type, const char *backup, const char *config_path);
    // Updates the IOA engine and waits, five minutes at most, for its version to rise. 0: done,
    // also when the version stayed what it was; 1: the pack is to be kept; -1: to be dropped.
    static int upgrade_ioa_engine(const char *config_path);
    // Asks for the IOA engine's version. 0, or 1 with `version` as it was.
    static int query_ioa_engine(unsigned long &version);
    // Starts an update of the MD engine, which ends with on_md_engine_update_cb. 0, also when the
    // engine can't take it now, or -1.
    static int upgrade_md_engine(const char *config_path);
    // Ends an update of the MD engine. Runs on a thread of the engine client; context is not read.
    static void on_md_engine_update_cb(_engine_type type, int result, void *context);

    // ---- IOC packs (kzemm_upgrade_ioc.cpp) ----

    // One pass over all packs: throws away those that no longer matter and hands the others to the
    // engine in rising order. 0, or the value of the step that ended the pass.
    int upgrade_ioc_handle();
    // Sorts file names into the packs to apply, in rising order of their versions and appended to
    // an empty list, and the file names to delete, appended. Names of neither form go nowhere; a
    // name of both forms may go to both.
    static void reorder_update(const std::vector<std::string> &files, ioc_list &list,
                               std::vector<std::string> &delete_names);
    // The same for full packs alone, of which one at most goes to the list: the highest.
    static void get_max_full_version(const std::vector<std::string> &files, ioc_list &list,
                                     std::vector<std::string> &delete_names);
    // result becomes 1 when the old version is below the new one, 0 when they are equal, else -1.
    // 0, or -1 for a null pointer with result as it was.
    static int compare_ioc_version(const ioc_st *new_version, const ioc_st *old_version,
                                   int &result);
    // Updates the IOC engine with an unpacked file and waits, five minutes at most, for its version
    // to be the target's. 0: done; 1: the pack is to be kept; -1: to be dropped.
    int upgrade_ioc_engine(const char *path, const ioc_st *target);
    // Asks for the IOC engine's version, into ev. 0, or with ev as it was: 1 when the engine didn't
    // tell, -1 when its text is no version.
    int query_ioc_engine_ver();

  private:
    friend struct kzemm_upgrade_inspector;  // tests look at the fields through it

    // Brings one IOC pack to the engine, or throws it away. 0 to go on with the next one, or the
    // value that ends the pass.
    int upgrade_ioc_pack(const ioc_st &entry, const char *rules, const char *full_flag);
    // Whether the IOC engine's version became the target's.
    bool wait_for_ioc_version(const ioc_st *target);

    ioc_st ev;                              // the version that the IOC engine reported last
    cl_timerplus *upgrade_timer = nullptr;  // the tick, null while it isn't armed
    pthread_t upgrade_thread = 0;           // 0 while there is none
    // Deliberately unlocked: a plain flag that the worker thread clears and the loop reads.
    bool thread_running = false;
};

// The upgrade thread's routine; argument is the CUpgradeRelay. Gives the timer's result as a text,
// or "1" without an argument.
void *upgrade_thread_func(void *argument);

#endif
