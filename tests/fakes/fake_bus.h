/*
 * The message bus: a library with one frame and one dispatch object, which write each call to the
 * journal ("get object", "advise 1", "unadvise 615818…", "release", "dispatch 18") and answer as a
 * test says.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_FAKE_BUS_H
#define KZEMDLMGR_TESTS_FAKES_FAKE_BUS_H

#include <pthread.h>

#include <functional>
#include <string>
#include <vector>

#include "datapath/mbframe.h"
#include "tests/fakes/fake_libraries.h"

namespace fakes {

struct bus_event {
    unsigned int id;
    std::string data;  // of an offline event seven bytes, otherwise the text up to its end
    pthread_t thread;
};

// What was dispatched, in order.
std::vector<bus_event> bus_events();
// The result of every dispatch from now on; 0 to begin with.
void bus_dispatch_returns(int result);
// Runs on the dispatching thread within each dispatch, after it was recorded.
void on_bus_dispatch(std::function<void(MbFrame::IEvent *event)> hook);

// What DllGetClassObject was asked for last.
_GUID bus_asked_class();
_GUID bus_asked_interface();
// DllGetClassObject gives this code; with an object all the same, or none.
void bus_get_object_returns(int code, bool with_object = false);
// DllGetClassObject gives no object, and its code all the same.
void bus_gives_no_object();
// Advise gives this code; 0 to begin with.
void bus_advise_returns(int code);
// Whether Advise calls the plug-in's OnAdvised, which it does to begin with.
void bus_advises_at_once(bool on);
// The plug-in that Advise was given last.
MbFrame::IPlugin *bus_plugin();
MbFrame::IDispatch *bus_dispatch();
// The references to the frame that were given out and not released.
int bus_frame_references();

// Tells the plug-in's singleton that it is on this bus.
void advise_plugin();

symbols bus_symbols();
void reset_bus();

}  // namespace fakes

#endif
