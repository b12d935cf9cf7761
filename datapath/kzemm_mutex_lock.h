/*
 * Holds a mutex of the platform for as long as it lives.
 */
#ifndef KZEMDLMGR_DATAPATH_KZEMM_MUTEX_LOCK_H
#define KZEMDLMGR_DATAPATH_KZEMM_MUTEX_LOCK_H

#include "kzabase.h"

/* Threads: lives on the stack of one. */
class mutex_lock {
  public:
    explicit mutex_lock(kze_mutex_t to_hold) : mutex(to_hold) { kze_mutex_lock(mutex); }
    ~mutex_lock() { kze_mutex_unlock(mutex); }
    mutex_lock(const mutex_lock &) = delete;
    mutex_lock &operator=(const mutex_lock &) = delete;

  private:
    const kze_mutex_t mutex;
};

#endif
