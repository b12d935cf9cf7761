#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>

#include "kzautil.h"
#include "vrdbase.h"

namespace {

const char *loader_words() {
    const char *words = dlerror();
    return words == nullptr ? "no reason given" : words;
}

}  // namespace

int kze_dll_open(const char *path, void **handle_out) {
    if (handle_out == nullptr) {
        return EINVAL;
    }
    *handle_out = nullptr;
    if (path == nullptr || *path == '\0') {
        return EINVAL;
    }
    *handle_out = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (*handle_out != nullptr) {
        return 0;
    }
    kze_log(2, "library %s can't be opened: %s", path, loader_words());
    return access(path, F_OK) == 0 ? ELIBACC : ENOENT;
}

int kze_dll_get_addr(void *handle, const char *name, void **address_out) {
    if (address_out == nullptr) {
        return EINVAL;
    }
    *address_out = nullptr;
    if (handle == nullptr || name == nullptr) {
        return EINVAL;
    }
    dlerror();
    *address_out = dlsym(handle, name);
    if (*address_out != nullptr) {
        return 0;
    }
    kze_log(2, "symbol %s can't be found: %s", name, loader_words());
    return ENOENT;
}

int kze_dll_close(void *handle) {
    if (handle == nullptr) {
        return EINVAL;
    }
    if (dlclose(handle) == 0) {
        return 0;
    }
    kze_log(2, "library can't be closed: %s", loader_words());
    return ELIBACC;
}
