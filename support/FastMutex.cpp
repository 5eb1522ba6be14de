// FastMutex and the process-wide lock g_processLock.
#include "support/FastMutex.h"

FastMutex g_processLock;

FastMutex::FastMutex() noexcept {
  // The attribute object is a local that is not destroyed: on the systems
  // the daemon runs on it holds no resources.
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &attributes);
}

FastMutex::~FastMutex() { pthread_mutex_destroy(&m_mutex); }

void FastMutex::Lock() { pthread_mutex_lock(&m_mutex); }

// The result is ignored on purpose: the supervision loop unlocks once more
// than it locks for a known child, and that extra unlock must do nothing.
void FastMutex::Unlock() { pthread_mutex_unlock(&m_mutex); }
