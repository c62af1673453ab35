// The process-property table: set/get results, null arguments, first-use creation and its
// failure, and concurrent use with exact accounting.
#include <errno.h>
#include <pthread.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/process_property.h"
#include "interpose.h"
#include "log_capture.h"

namespace {
velmora::testing::Fault g_mutex_init;
}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_mutex_init(
    pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  if (g_mutex_init.shouldFail()) {
    errno = ENOMEM;
    return ENOMEM;
  }
  return VELMORA_REAL(pthread_mutex_init)(mutex, attributes);
}

namespace {

using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;

class ProcessPropertyTest : public LogCaptureTest {};

TEST_F(ProcessPropertyTest, UnsetPropertyReadsEmpty) {
  EXPECT_EQ("", base::get_process_property("x"));
}

TEST_F(ProcessPropertyTest, SetReturnsThePreviousValue) {
  EXPECT_EQ("", base::set_process_property("x", "1"));
  EXPECT_EQ("1", base::set_process_property("x", "2"));
  EXPECT_EQ("2", base::get_process_property("x"));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(ProcessPropertyTest, NamesDifferingInCaseAreDifferentProperties) {
  EXPECT_EQ("", base::set_process_property("Name", "upper"));
  EXPECT_EQ("", base::set_process_property("name", "lower"));
  EXPECT_EQ("upper", base::get_process_property("Name"));
  EXPECT_EQ("lower", base::get_process_property("name"));
  EXPECT_EQ("", base::get_process_property("NAME"));
}

TEST_F(ProcessPropertyTest, EmptyValueReadsLikeAnAbsentOne) {
  EXPECT_EQ("", base::set_process_property("k", "v"));
  EXPECT_EQ("v", base::set_process_property("k", ""));
  EXPECT_EQ("", base::get_process_property("k"));
  EXPECT_EQ("", base::set_process_property("k", "w"));
}

TEST_F(ProcessPropertyTest, NamesAndValuesAreArbitraryBytes) {
  const std::string long_name(10000, 'n');
  const std::string long_value(100000, 'v');
  EXPECT_EQ("", base::set_process_property(long_name.c_str(), long_value.c_str()));
  EXPECT_EQ(long_value, base::get_process_property(long_name.c_str()));
  EXPECT_EQ("", base::set_process_property("", "empty name"));
  EXPECT_EQ("empty name", base::get_process_property(""));
  EXPECT_EQ("", base::set_process_property("\xFF\x01 =#", "\n\t"));
  EXPECT_EQ("\n\t", base::get_process_property("\xFF\x01 =#"));
}

TEST_F(ProcessPropertyTest, NullArgumentsThrowLogicErrorBeforeTheTableIsMade) {
  // Creating the table now would fail; a null argument is refused before it is reached.
  g_mutex_init.failAlways();
  EXPECT_THROW(base::set_process_property(nullptr, "v"), std::logic_error);
  EXPECT_THROW(base::set_process_property("n", nullptr), std::logic_error);
  EXPECT_THROW(base::get_process_property(nullptr), std::logic_error);
  g_mutex_init.off();
  EXPECT_EQ(0, g_mutex_init.failures());
  EXPECT_EQ("", base::get_process_property("n"));
}

TEST_F(ProcessPropertyTest, NullArgumentLeavesTheTableUnchanged) {
  EXPECT_EQ("", base::set_process_property("n", "1"));
  EXPECT_THROW(base::set_process_property("n", nullptr), std::logic_error);
  EXPECT_EQ("1", base::get_process_property("n"));
}

TEST_F(ProcessPropertyTest, FailedMutexInitThrowsAndTheNextCallTriesAgain) {
  g_mutex_init.failNext(1);
  try {
    base::set_process_property("x", "1");
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string("Mutex init error: ") + strerror(ENOMEM), error.what());
  }
  EXPECT_EQ(1, g_mutex_init.failures());
  EXPECT_EQ("", base::set_process_property("x", "2"));
  EXPECT_EQ("2", base::get_process_property("x"));
}

// Opens once every thread is waiting, so that all start together.
class StartGate {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    opened_.wait(lock, [this] { return open_; });
  }
  void open() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_ = true;
    }
    opened_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

TEST_F(ProcessPropertyTest, EightThreadsLoseNothing) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 1000;
  constexpr int kShared = 5;
  StartGate gate;
  // What each thread saw as previous values of the shared names, and errors found on the way.
  std::vector<std::vector<std::string>> previous(kThreads);
  std::vector<int> errors(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      gate.wait();
      for (int i = 0; i < kRounds; ++i) {
        const std::string own = "own-" + std::to_string(t) + "-" + std::to_string(i);
        if (base::set_process_property(own.c_str(), own.c_str()) != "") {
          ++errors[t];
        }
        const std::string shared = "shared-" + std::to_string(i % kShared);
        const std::string value = std::to_string(t) + ":" + std::to_string(i);
        previous[t].push_back(base::set_process_property(shared.c_str(), value.c_str()));
        if (base::get_process_property(own.c_str()) != own) {
          ++errors[t];
        }
      }
    });
  }
  gate.open();
  for (std::thread& thread : threads) {
    thread.join();
  }

  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(0, errors[t]) << "thread " << t;
    for (int i = 0; i < kRounds; ++i) {
      const std::string own = "own-" + std::to_string(t) + "-" + std::to_string(i);
      ASSERT_EQ(own, base::get_process_property(own.c_str()));
    }
  }
  // Every value written to a shared name is either reported once as the previous value of a
  // later write, or is the final value; "" is reported once per name (its first write).
  std::map<std::string, int> reported;
  for (const std::vector<std::string>& seen : previous) {
    for (const std::string& value : seen) {
      ++reported[value];
    }
  }
  EXPECT_EQ(kShared, reported[""]);
  for (int s = 0; s < kShared; ++s) {
    const std::string shared = "shared-" + std::to_string(s);
    ++reported[base::get_process_property(shared.c_str())];
  }
  reported.erase("");
  ASSERT_EQ(static_cast<size_t>(kThreads * kRounds), reported.size());
  for (const auto& entry : reported) {
    EXPECT_EQ(1, entry.second) << entry.first;
  }
  EXPECT_TRUE(LogCapture::entries().empty());
}

}  // namespace
