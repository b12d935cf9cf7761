/* How a command ends. */
#ifndef KZE_AGENT_CTL_CORE_FAILURE_H
#define KZE_AGENT_CTL_CORE_FAILURE_H

#include <stdexcept>
#include <string>

namespace kze::ctl {

/* The exit statuses of kzectl; scripts rely on the numbers. */
enum exit_status : int {
    exit_done = 0,
    exit_failed = 1,      /* tried and failed, or the agent refused */
    exit_usage = 2,       /* the command line makes no sense */
    exit_not_running = 3, /* the host, the engine or a service that is needed isn't running */
    exit_timed_out = 4,
    exit_not_there = 5, /* no such key, record or log */
    /* A management request's response code that isn't 0, and 10. */
    exit_queue_full = 11,
    exit_no_permission = 12,
    exit_invalid = 13,
    exit_not_taken = 14,
};

/* Ends a command: main prints the text and returns the status. */
class failure : public std::runtime_error {
  public:
    failure(exit_status status, const std::string &text)
        : std::runtime_error(text), status_(status) {}
    exit_status status() const { return status_; }

  private:
    exit_status status_;
};

}  // namespace kze::ctl

#endif
