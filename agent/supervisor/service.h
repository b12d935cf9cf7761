/* What the service tool knows of a service, and how its processes find each other. */
#ifndef KZE_AGENT_SUPERVISOR_SERVICE_H
#define KZE_AGENT_SUPERVISOR_SERVICE_H

#include <sys/types.h>

#include <string>

#include "agent/common/services.h"
#include "platform/common/descriptor.h"

namespace kze::engine {

using service = agent_service;

/* All services' names with blanks between them. */
std::string service_names();

/* The exit status with which a service tells its supervisor not to start it again. */
constexpr int exit_stay_down = 77;

/*
 * The lock that a service's supervisor holds as long as it lives. It is a record lock, so that the
 * kernel itself names the holder and no file can hold the number of a process long gone. It belongs
 * to the process that took it and isn't inherited. One thread at a time.
 */
class supervisor_lock {
  public:
    explicit supervisor_lock(const service &of);
    /* Takes the lock for the calling process, which keeps it until it ends. False when another
     * holds it, or when the file can't be made (see error). */
    bool take();
    /* The process that holds the lock; 0 when there is none, -1 when that can't be told. */
    pid_t holder() const;

  private:
    descriptor file_;
};

/*
 * Keeps two commands on one service from running at the same time, for its lifetime; waits up to
 * 30 seconds for its turn. One thread at a time.
 */
class command_lock {
  public:
    explicit command_lock(const service &of);
    /* False when the lock can't be had. */
    bool held() const { return held_; }

  private:
    descriptor file_;
    bool held_ = false;
};

/* The first process whose parent is `parent`, or 0. */
pid_t child_of(pid_t parent);

/* The parent of a process, or 0 when there is no such process. */
pid_t parent_of(pid_t process);

}  // namespace kze::engine

#endif
