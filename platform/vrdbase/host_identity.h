/*
 * Where the number of this host comes from. A free function: safe from any thread and process.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDBASE_HOST_IDENTITY_H
#define KZEMDLMGR_PLATFORM_VRDBASE_HOST_IDENTITY_H

#include <string>

// A number other than 0: derived from the identifier in `machine_id_file`, else from the one kept
// in `own_file` (made there if need be, readable by its owner), else from the host's name.
unsigned int host_identity(const std::string &machine_id_file, const std::string &own_file);

#endif
