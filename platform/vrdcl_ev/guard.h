/*
 * Where the exceptions of callbacks end.
 */
#ifndef KZEMDLMGR_PLATFORM_VRDCL_EV_GUARD_H
#define KZEMDLMGR_PLATFORM_VRDCL_EV_GUARD_H

#include <cxxabi.h>

#include <exception>

#include "vrdbase.h"

namespace kze_ev {

// Runs `body`. An exception ends here with a line in the log that names it by `what`: between a
// loop's callbacks and the program that turns the loop there is nobody who could deal with it, and
// it must not keep the loop from what follows. The unwinding of a thread that is cancelled goes on.
template <typename Body>
void run_guarded(const char *what, Body &&body) {
    try {
        body();
    } catch (const std::exception &error) {
        kze_log(1, "event loop: %s threw an exception: %s", what, error.what());
    } catch (const abi::__forced_unwind &) {
        throw;
    } catch (...) {
        kze_log(1, "event loop: %s threw an exception of an unknown kind", what);
    }
}

}  // namespace kze_ev

#endif
