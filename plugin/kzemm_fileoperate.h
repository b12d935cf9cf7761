/*
 * External commands. Free of shared state; any thread may call, and waits for the command's end.
 */
#ifndef KZEMDLMGR_PLUGIN_KZEMM_FILEOPERATE_H
#define KZEMDLMGR_PLUGIN_KZEMM_FILEOPERATE_H

// Logs the command line and runs it with system_exec, whose result it returns.
int create_process(const char *command);

// Runs a command line by the shell, with its standard descriptors on /dev/null; everything else
// is inherited. Returns 0 when it exited with status 0, -1 otherwise; a null or empty line sets
// errno to EINVAL and starts nothing. Logs nothing.
int system_exec(const char *command);

#endif
