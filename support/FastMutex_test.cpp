// Unit tests for FastMutex: recursion and the harmless extra unlock.
#include "support/FastMutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

namespace {
// True when another thread can take the mutex. That thread is detached so a
// mutex left locked fails the test instead of hanging it.
bool FreeForOthers(FastMutex& mutex) {
  auto taken = std::make_shared<std::promise<void>>();
  std::future<void> done = taken->get_future();
  std::thread([&mutex, taken] {
    mutex.Lock();
    mutex.Unlock();
    taken->set_value();
  }).detach();
  return done.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
}

TEST(FastMutex, RecursiveAndUnlockWithoutHoldingIsHarmless) {
  static FastMutex mutex;
  mutex.Lock();
  mutex.Lock();  // would deadlock if the mutex were not recursive
  mutex.Unlock();
  mutex.Unlock();
  EXPECT_TRUE(FreeForOthers(mutex));
  mutex
      .Unlock();  // the supervision loop's extra unlock: fails, changes nothing
  EXPECT_TRUE(FreeForOthers(mutex));
  mutex.Lock();
  mutex.Unlock();
  EXPECT_TRUE(FreeForOthers(mutex));
}
}  // namespace
