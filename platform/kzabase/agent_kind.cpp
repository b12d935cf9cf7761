#include <strings.h>

#include <climits>

#include "kzabase.h"
#include "kzautil.h"

int IsCNAPPAgent(void) {
    char path[PATH_MAX];
    if (kze_dirutils_path_transform("@/../config/agent.ini", path, sizeof path) != 0) {
        return 0;
    }
    void *settings = kze_ini_file_load(path);
    if (settings == nullptr) {
        return 0;
    }
    const char *kind = kze_ini_file_get(settings, "agent", "kind");
    const bool cnapp = kind != nullptr && strcasecmp(kind, "cnapp") == 0;
    kze_ini_file_free(settings);
    return cnapp ? 1 : 0;
}
