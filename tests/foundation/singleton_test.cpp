#include "base/singleton.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using velmora::base::Singleton;

struct Counted {
  static std::atomic<int> constructions;
  Counted() { constructions.fetch_add(1); }
};
std::atomic<int> Counted::constructions{0};

TEST(SingletonTest, WordGoesFromZeroToTheInstanceAddress) {
  EXPECT_EQ(Singleton<Counted>::instance_, 0);
  Counted* instance = Singleton<Counted>::get();
  EXPECT_EQ(Singleton<Counted>::instance_, reinterpret_cast<intptr_t>(instance));
  EXPECT_EQ(Singleton<Counted>::get(), instance);
  EXPECT_EQ(Counted::constructions.load(), 1);
}

TEST(SingletonTest, ConcurrentFirstCallersGetOneInstanceConstructedOnce) {
  constexpr int kThreads = 16;
  std::vector<Counted*> seen(kThreads, nullptr);
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) {
        std::this_thread::yield();
      }
      seen[i] = Singleton<Counted>::get();
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  ASSERT_NE(seen[0], nullptr);
  for (Counted* instance : seen) {
    EXPECT_EQ(instance, seen[0]);
  }
  EXPECT_EQ(Counted::constructions.load(), 1);
}

// A constructor that waits for permission, so a second caller finds the marker.
struct Gated {
  static std::mutex mutex;
  static std::condition_variable changed;
  static bool entered;
  static bool released;
  Gated() {
    std::unique_lock<std::mutex> lock(mutex);
    entered = true;
    changed.notify_all();
    changed.wait(lock, [] { return released; });
  }
};
std::mutex Gated::mutex;
std::condition_variable Gated::changed;
bool Gated::entered = false;
bool Gated::released = false;

TEST(SingletonTest, CallerFindingTheMarkerReturnsOnlyAfterThePublication) {
  Gated* first = nullptr;
  std::thread creator([&] { first = Singleton<Gated>::get(); });
  {
    std::unique_lock<std::mutex> lock(Gated::mutex);
    Gated::changed.wait(lock, [] { return Gated::entered; });
  }
  EXPECT_EQ(Singleton<Gated>::instance_, 1);

  std::atomic<Gated*> second{nullptr};
  std::thread waiter([&] { second.store(Singleton<Gated>::get()); });
  // The waiter cannot have an address while the creator is still inside the constructor.
  EXPECT_EQ(second.load(), nullptr);
  {
    std::lock_guard<std::mutex> lock(Gated::mutex);
    EXPECT_EQ(second.load(), nullptr);
    Gated::released = true;
  }
  Gated::changed.notify_all();
  creator.join();
  waiter.join();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(second.load(), first);
}

TEST(SingletonTest, WaitForInstanceReturnsAnyValueOtherThanTheMarker) {
  intptr_t word = 0;
  EXPECT_EQ(velmora::base::internal::WaitForInstance(&word), 0);
  word = 0x1234;
  EXPECT_EQ(velmora::base::internal::WaitForInstance(&word), 0x1234);
}

struct Throwing {
  Throwing() { throw std::runtime_error("construction failed"); }
};

void spinAfterThrowingConstructor() {
  try {
    Singleton<Throwing>::get();
  } catch (const std::runtime_error&) {
  }
  if (Singleton<Throwing>::instance_ != 1) {
    _exit(2);
  }
  std::mutex mutex;
  std::condition_variable returned;
  bool done = false;
  std::thread later([&] {
    Singleton<Throwing>::get();
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
    returned.notify_all();
  });
  later.detach();
  std::unique_lock<std::mutex> lock(mutex);
  const bool came_back = returned.wait_for(lock, std::chrono::seconds(2), [&] { return done; });
  // The later caller spins for ever; the process is left with it still spinning.
  _exit(came_back ? 3 : 0);
}

TEST(SingletonDeathTest, ThrowingConstructorLeavesTheMarkerAndLaterCallersSpin) {
  EXPECT_EXIT(spinAfterThrowingConstructor(), ::testing::ExitedWithCode(0), "");
}

TEST(SingletonTest, ThrowingConstructorPropagatesToTheFirstCaller) {
  EXPECT_THROW(Singleton<Throwing>::get(), std::runtime_error);
  EXPECT_EQ(Singleton<Throwing>::instance_, 1);
}

}  // namespace
