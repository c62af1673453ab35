// A module built against the library in the field sees TimerTaskBase and TimerThread through a
// header that only declares their member functions, so it needs every one of them defined in
// the library. This program declares the two classes as such a header does, without including
// any header of the library, and uses the accessors that are easiest to mistake for inline-only.
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>

namespace velmora {
namespace base {
namespace timer {

// The interface as the field's header declares it; the data members are those of the library.
class __attribute__((visibility("default"))) TimerTaskBase {
 public:
  TimerTaskBase();
  virtual ~TimerTaskBase();
  virtual void execute() = 0;
  void setNextFireTime(double seconds);
  double getNextFireTime() const;
  int sessionId() const;
  int taskId() const;

 protected:
  double nextFireTime_;
  int sessionId_;
  int taskId_;
};

// Only the functions this program calls. The object is built by the library's constructor, so
// the program needs nothing but room for it: more than the library's TimerThread takes.
class __attribute__((visibility("default"))) TimerThread {
 public:
  TimerThread();
  ~TimerThread();
  void postTask(std::shared_ptr<TimerTaskBase> task, int delayMs);
  int threadId() const;

 private:
  alignas(std::max_align_t) unsigned char storage_[1024];
};

}  // namespace timer
}  // namespace base
}  // namespace velmora

namespace {

using velmora::base::timer::TimerTaskBase;
using velmora::base::timer::TimerThread;

// A task with a task id of its own that records the kernel thread it ran on.
class RecordingTask : public TimerTaskBase {
 public:
  explicit RecordingTask(int taskId) { taskId_ = taskId; }
  void execute() override {
    std::lock_guard<std::mutex> lock(mutex_);
    ranOn_ = static_cast<int>(syscall(SYS_gettid));
    ran_.notify_all();
  }
  // The kernel thread id it ran on, or 0 when it has not run within the timeout.
  int waitRanOn() {
    std::unique_lock<std::mutex> lock(mutex_);
    ran_.wait_for(lock, std::chrono::seconds(10), [this] { return ranOn_ != 0; });
    return ranOn_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ran_;
  int ranOn_ = 0;
};

TEST(TaskDeclaredInterfaceTest, TaskAccessorsLinkToTheLibrary) {
  RecordingTask first(0);
  RecordingTask second(7);
  EXPECT_EQ(first.sessionId(), 1);
  EXPECT_EQ(second.sessionId(), 2);
  EXPECT_EQ(first.taskId(), 0);
  EXPECT_EQ(second.taskId(), 7);
  EXPECT_EQ(first.getNextFireTime(), 0.0);
  first.setNextFireTime(1234.5625);
  EXPECT_EQ(first.getNextFireTime(), 1234.5625);
}

TEST(TaskDeclaredInterfaceTest, ThreadIdLinksToTheLibraryAndNamesTheWorker) {
  TimerThread thread;
  EXPECT_EQ(thread.threadId(), -1);
  auto task = std::make_shared<RecordingTask>(0);
  thread.postTask(task, 0);
  const int worker = task->waitRanOn();
  ASSERT_NE(worker, 0);
  EXPECT_EQ(thread.threadId(), worker);
}

}  // namespace
