/*
 * The plug-in's two entry points, the only symbols that leave the library.
 *
 * The host calls them one at a time; they take no lock.
 */
#ifndef KZEMDLMGR_PLUGIN_KZEMDLMGR_H
#define KZEMDLMGR_PLUGIN_KZEMDLMGR_H

#define KZEMDLMGR_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Opens the engine client and the gateway and starts the worker thread. Returns 0 when the thread
 * was started or was already running, -1 on any failure, which leaves the plug-in stopped. What the
 * worker does afterwards is not reported to the host.
 */
KZEMDLMGR_EXPORT int kzemdlmgr_init(void);

/*
 * Stops the worker, waits for its thread and closes the two libraries. Always 0. Waits for as long
 * as the worker's action in flight takes: one that is still starting ends when its start has ended.
 * A worker that was not created yet is not told to stop.
 */
KZEMDLMGR_EXPORT int kzemdlmgr_uninit(void);

#ifdef __cplusplus
}
#endif

#endif
