// FastMutex: one recursive POSIX mutex, locked and unlocked by explicit calls.
// Recursive because the daemon's SIGTERM handler runs on the main thread and
// may interrupt code that already holds the lock; it must not block on it.
// Unlocking a mutex the caller does not hold fails silently.
#ifndef SUPPORT_FASTMUTEX_H_
#define SUPPORT_FASTMUTEX_H_

#include <pthread.h>

class FastMutex {
 public:
  // noexcept: only pthread calls, so g_processLock cannot throw at start-up.
  FastMutex() noexcept;
  virtual ~FastMutex();
  FastMutex(const FastMutex&) = delete;
  FastMutex& operator=(const FastMutex&) = delete;

  void Lock();
  void Unlock();

 private:
  pthread_mutex_t m_mutex;
};

// Held while a process table of the daemon is searched or changed and while
// supervision is switched off.
extern FastMutex g_processLock;

#endif  // SUPPORT_FASTMUTEX_H_
