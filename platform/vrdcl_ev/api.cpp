// The interface of vrdcl_ev.h on top of the loop.
#include <cerrno>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/vrdcl_ev/loop.h"
#include "platform/vrdcl_ev/timer.h"
#include "vrdcl_ev.h"

namespace {

using kze_ev::loop;
using kze_ev::timer;

// A timer and where it was armed. The queue may be gone long before the handle is closed.
struct timer_entry {
    std::shared_ptr<timer> item;
    std::weak_ptr<loop> where;
};

// All timer handles that are not closed. Safe from any thread. A handle is only looked up here,
// never followed, so that a stale one does no harm.
class timer_table {
  public:
    void add(const timer_entry &entry) {
        std::lock_guard<std::mutex> guard(mutex);
        entries[&entry.item->record] = entry;
    }

    timer_entry find(cl_timerplus *handle) {
        std::lock_guard<std::mutex> guard(mutex);
        auto at = entries.find(handle);
        return at == entries.end() ? timer_entry{} : at->second;
    }

    // Takes the handle out and keeps its memory for a while, so that its value isn't given out
    // again at once.
    timer_entry remove(cl_timerplus *handle) {
        timer_entry removed;
        std::shared_ptr<timer> released;  // let go of without the lock
        std::lock_guard<std::mutex> guard(mutex);
        auto at = entries.find(handle);
        if (at == entries.end()) {
            return removed;
        }
        closed.push_back(at->second.item);
        removed = std::move(at->second);
        entries.erase(at);
        if (closed.size() > kept_closed) {
            released = std::move(closed.front());
            closed.pop_front();
        }
        return removed;
    }

  private:
    static constexpr std::size_t kept_closed = 256;

    std::mutex mutex;
    std::unordered_map<const cl_timerplus *, timer_entry> entries;  // guarded by mutex
    std::deque<std::shared_ptr<timer>> closed;                      // guarded by mutex
};

// Never destroyed: threads may outlive the library's static objects while the process exits.
timer_table &timers() {
    static auto *const table = new timer_table;
    return *table;
}

void disarm(const timer_entry &entry) {
    if (entry.item == nullptr) {
        return;
    }
    const std::shared_ptr<loop> where = entry.where.lock();
    if (where != nullptr) {
        where->disarm(entry.item.get(), true);
    }
}

// What a new isolated thread gets from its creator, and then owns.
struct thread_start {
    std::shared_ptr<loop> own_loop;
    void *(*routine)(void *);
    void *argument;
    std::mutex gate;  // held by the creator until it has stored the thread's id
};

// Ends the thread's loop, whichever way the thread leaves its routine.
class loop_scope {
  public:
    explicit loop_scope(std::shared_ptr<loop> own) : scoped_loop(std::move(own)) {
        scoped_loop->enter();
    }
    ~loop_scope() { scoped_loop->end(); }
    loop_scope(const loop_scope &) = delete;
    loop_scope &operator=(const loop_scope &) = delete;

  private:
    std::shared_ptr<loop> scoped_loop;
};

extern "C" void *run_isolated_thread(void *argument) {
    std::unique_ptr<thread_start> start(static_cast<thread_start *>(argument));
    start->gate.lock();
    start->gate.unlock();
    loop_scope scope(start->own_loop);
    void *(*const routine)(void *) = start->routine;
    void *const routine_argument = start->argument;
    start.reset();
    return routine(routine_argument);
}

int create_isolated_thread(pthread_t *id_out, const pthread_attr_t *attributes,
                           void *(*routine)(void *), void *argument) {
    auto start = std::make_unique<thread_start>();
    start->own_loop = loop::create();
    if (start->own_loop == nullptr) {
        return EAGAIN;
    }
    start->routine = routine;
    start->argument = argument;
    start->own_loop->offer_to_others();
    pthread_t id{};
    std::unique_lock<std::mutex> gate(start->gate);
    const int result = pthread_create(&id, attributes, run_isolated_thread, start.get());
    if (result != 0) {
        start->own_loop->end();
        gate.unlock();
        return result;
    }
    *id_out = id;
    static_cast<void>(start.release());
    return 0;
}

cl_timerplus *start_timer(unsigned int first_ms, unsigned int period_ms, cl_timerplus_cb callback,
                          void *user) {
    auto item = std::make_shared<timer>();
    item->record.user = user;
    item->callback = callback;
    item->period_ns = std::uint64_t{period_ms} * 1000000;
    // A loop found may end before the timer is armed; the next look finds another one, or none.
    while (const std::shared_ptr<loop> where = loop::of_caller()) {
        timers().add({item, where});
        if (where->arm(item, first_ms)) {
            return &item->record;
        }
        timers().remove(&item->record);
        if (where->is_current()) {
            break;
        }
    }
    return nullptr;
}

// Gives the calling thread a loop that ends when the thread does.
loop *adopt_loop() {
    thread_local std::unique_ptr<loop_scope> scope;
    std::shared_ptr<loop> own = loop::create();
    if (own == nullptr) {
        return nullptr;
    }
    scope = std::make_unique<loop_scope>(own);
    return own.get();
}

}  // namespace

int cl_ev_create_isolated_thread(pthread_t *id_out, const pthread_attr_t *attributes,
                                 void *(*routine)(void *), void *argument) {
    if (id_out == nullptr || routine == nullptr) {
        return EINVAL;
    }
    try {
        return create_isolated_thread(id_out, attributes, routine, argument);
    } catch (const std::exception &) {
        return ENOMEM;
    }
}

int cl_ev_loop_nowait(int on) {
    try {
        loop *own = loop::current();
        if (own == nullptr) {
            own = adopt_loop();
        }
        if (own == nullptr) {
            return -1;
        }
        own->set_nowait(on != 0);
        return 0;
    } catch (const std::exception &) {
        return -1;
    }
}

int cl_event_loop_once(void) {
    loop *const own = loop::current();
    return own == nullptr ? -1 : own->turn();
}

cl_timerplus *cl_timerplus_start(unsigned int first_ms, unsigned int flags, unsigned int period_ms,
                                 cl_timerplus_cb callback, void *user) {
    if (callback == nullptr || flags != 0) {
        return nullptr;
    }
    try {
        return start_timer(first_ms, period_ms, callback, user);
    } catch (const std::exception &) {
        return nullptr;
    }
}

void cl_timerplus_stop(cl_timerplus *timer) {
    disarm(timers().find(timer));
}

void cl_timerplus_close(cl_timerplus *timer) {
    disarm(timers().remove(timer));
}
