// Waits inside the middleware: single-threaded objects calling each other from many threads, and
// event-loop workers that block, must always make progress and never stall unrelated work.

#include "test_util.hpp"

#include <ka/eventloop.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>

namespace {

using namespace std::chrono_literals;
using ka::test::finishesInTime;

// Long enough never to expire on a loaded machine: reaching it means the test failed.
constexpr int kLimitMs = 20000;

// Counts the calls inside a set of methods that never wait: a single-threaded object must never
// run two of them at once.
class Exclusive {
 public:
  void run() {
    if (++_inside > 1) {
      _overlaps.fetch_add(1);
    }
    for (int i = 0; i < 50; ++i) {
      std::this_thread::yield();  // widens the window an overlap would need
    }
    --_inside;
  }
  int overlaps() const { return _overlaps.load(); }

 private:
  std::atomic<int> _inside{0};
  std::atomic<int> _overlaps{0};
};

// Three single-threaded objects whose methods call one another: out(i) calls the next object's
// out(i - 1) (a cycle X -> Y -> Z -> X), back(i) calls the previous one's, and leaf() does work.
struct Ring {
  static constexpr int kObjects = 3;
  std::vector<std::shared_ptr<ka::AnyObject>> objects;
  std::vector<std::shared_ptr<Exclusive>> leaves;

  Ring() {
    for (int i = 0; i < kObjects; ++i) {
      objects.push_back(std::make_shared<ka::AnyObject>());
      leaves.push_back(std::make_shared<Exclusive>());
    }
    for (int i = 0; i < kObjects; ++i) {
      const auto next = objects[(i + 1) % kObjects];
      const auto prev = objects[(i + kObjects - 1) % kObjects];
      const auto leaf = leaves[i];
      ka::DynamicObjectBuilder b;
      b.setThreadingModel(ka::ObjectThreadingModel::SingleThread);
      b.advertiseMethod("leaf", [leaf]() {
        leaf->run();
        return 1;
      });
      b.advertiseMethod("out", [next, leaf](int depth) {
        leaf->run();
        return depth <= 0 ? 1 : (*next)->call<int>("out", depth - 1) + 1;
      });
      b.advertiseMethod("back", [prev, leaf](int depth) {
        leaf->run();
        return depth <= 0 ? (*prev)->call<int>("leaf") : (*prev)->call<int>("back", depth - 1) + 1;
      });
      *objects[i] = b.object();
    }
  }
  ~Ring() {
    for (auto& o : objects) {
      o->reset();  // the methods hold the ring: break the cycle
    }
  }
};

TEST(SingleThreadedObjects, CallingEachOtherInCyclesFromManyThreadsAlwaysComplete) {
  Ring ring;
  std::atomic<int> wrong{0};
  const bool finished = finishesInTime([&] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
      threads.emplace_back([&, t] {
        std::mt19937 random(static_cast<unsigned>(t));
        const auto until = std::chrono::steady_clock::now() + 1s;
        while (std::chrono::steady_clock::now() < until) {
          const int start = static_cast<int>(random() % Ring::kObjects);
          const int depth = static_cast<int>(random() % 5);
          const bool forward = (random() & 1) != 0;
          const int got = (*ring.objects[start])->call<int>(forward ? "out" : "back", depth);
          if (got != depth + 1) {
            wrong.fetch_add(1);
          }
        }
      });
    }
    for (auto& th : threads) {
      th.join();
    }
  });
  ASSERT_TRUE(finished) << "objects calling each other deadlocked";
  EXPECT_EQ(wrong.load(), 0);
  for (const auto& leaf : ring.leaves) {
    EXPECT_EQ(leaf->overlaps(), 0) << "an object ran two calls at once without one blocking";
  }
}

TEST(SingleThreadedObjects, TwoThreadsCrossingBetweenTwoObjectsNeverDeadlock) {
  // x.a calls y.c while y.b calls x.d on another thread: each thread holds one object and
  // needs the other.
  auto x = std::make_shared<ka::AnyObject>();
  auto y = std::make_shared<ka::AnyObject>();
  ka::DynamicObjectBuilder bx;
  bx.setThreadingModel(ka::ObjectThreadingModel::SingleThread);
  const auto work = [] {
    for (int i = 0; i < 20; ++i) {
      std::this_thread::yield();
    }
  };
  // a and b meet before calling across, so that each finds the other object busy. The meeting
  // gives up quickly: a thread that waits at a gate cannot arrive, and the gate is not fair.
  auto arrived = std::make_shared<std::atomic<int>>(0);
  const auto meet = [arrived] {
    const int mine = ++*arrived;
    const int pair = (mine + 1) / 2 * 2;
    const auto giveUp = std::chrono::steady_clock::now() + 5ms;
    while (arrived->load() < pair && std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::yield();
    }
  };
  bx.advertiseMethod("a", [y, meet]() {
    meet();
    return (*y)->call<int>("c") + 1;
  });
  bx.advertiseMethod("d", [work]() {
    work();
    return 10;
  });
  ka::DynamicObjectBuilder by;
  by.setThreadingModel(ka::ObjectThreadingModel::SingleThread);
  by.advertiseMethod("b", [x, meet]() {
    meet();
    return (*x)->call<int>("d") + 1;
  });
  by.advertiseMethod("c", [work]() {
    work();
    return 20;
  });
  *x = bx.object();
  *y = by.object();
  const bool finished = finishesInTime([&] {
    constexpr int kRounds = 200;
    std::thread other([&] {
      for (int i = 0; i < kRounds; ++i) {
        EXPECT_EQ((*y)->call<int>("b"), 11);
      }
    });
    for (int i = 0; i < kRounds; ++i) {
      EXPECT_EQ((*x)->call<int>("a"), 21);
    }
    other.join();
  });
  ASSERT_TRUE(finished) << "x.a -> y.c against y.b -> x.d deadlocked";
  x->reset();
  y->reset();
}

// A single-threaded object whose "hold" keeps the object busy until released, without
// blocking in a way the middleware could see.
class BusyObject {
 public:
  BusyObject() {
    ka::DynamicObjectBuilder b;
    b.setThreadingModel(ka::ObjectThreadingModel::SingleThread);
    b.advertiseMethod("hold", [this]() {
      std::unique_lock<std::mutex> lock(_mutex);
      _holding = true;
      _changed.notify_all();
      _changed.wait(lock, [this] { return _released; });
      return 0;
    });
    b.advertiseMethod("poke", [this](int n) {
      std::lock_guard<std::mutex> lock(_mutex);
      _order.push_back(n);
      return n;
    });
    object = b.object();
  }
  bool waitUntilHolding() {
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, std::chrono::milliseconds(kLimitMs),
                             [this] { return _holding; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(_mutex);
    _released = true;
    _changed.notify_all();
  }
  std::vector<int> order() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _order;
  }

  ka::AnyObject object;

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  // Guarded by _mutex.
  bool _holding = false;
  bool _released = false;
  std::vector<int> _order;
};

TEST(QueuedCalls, WaitingAtABusyObjectHoldNoWorkerAndRunInOrderOnceItIsFree) {
  BusyObject busy;
  std::thread holder([&] { busy.object->call<int>("hold"); });
  ASSERT_TRUE(busy.waitUntilHolding());

  const int threadsBefore = ka::defaultEventLoop().threadCount();
  constexpr int kCalls = 200;  // far more than a pool would ever grow for waits
  std::vector<ka::Future<int>> pokes;
  for (int i = 0; i < kCalls; ++i) {
    pokes.push_back(busy.object->async<int>("poke", i));
  }
  // Unrelated work still runs at once, and no worker was spent waiting at the object.
  EXPECT_TRUE(ka::defaultEventLoop().async([] { return 7; }).hasValue(kLimitMs))
      << "queued calls waiting at a busy object stalled the event loop";
  EXPECT_LE(ka::defaultEventLoop().threadCount(), threadsBefore + 1);
  EXPECT_TRUE(busy.order().empty()) << "a queued call ran while the object was busy";

  busy.release();
  holder.join();
  for (int i = 0; i < kCalls; ++i) {
    EXPECT_EQ(pokes[i].value(kLimitMs), i);
  }
  std::vector<int> expected(kCalls);
  for (int i = 0; i < kCalls; ++i) {
    expected[i] = i;
  }
  EXPECT_EQ(busy.order(), expected);
}

TEST(QueuedCalls, AQueuedCallRunsWhileTheCallInsideBlocksOnIt) {
  // The documented re-entry: a call that waits lets the object's queued calls in.
  auto self = std::make_shared<ka::AnyObject>();
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::SingleThread);
  b.advertiseMethod("inner", [](int v) { return v * 2; });
  b.advertiseMethod("outer", [self]() {
    int sum = 0;
    for (int i = 0; i < 10; ++i) {
      sum += (*self)->async<int>("inner", i).value(kLimitMs);
    }
    return sum;
  });
  *self = b.object();
  // From a worker of the loop as well as from a plain thread.
  EXPECT_EQ((*self)->async<int>("outer").value(kLimitMs), 90);
  EXPECT_EQ((*self)->call<int>("outer"), 90);
  self->reset();
}

TEST(BlockedWorkers, ManyTasksEachWaitingOnAnotherTaskOfTheSameLoopAllComplete) {
  ka::EventLoop loop("blocked", 2);
  constexpr int kTasks = 150;  // more waits than a fixed handful of spares could carry
  std::vector<ka::Future<int>> outer;
  for (int i = 0; i < kTasks; ++i) {
    outer.push_back(loop.async([&loop, i] { return loop.async([i] { return i; }).value() + 1; }));
  }
  for (int i = 0; i < kTasks; ++i) {
    ASSERT_EQ(outer[i].value(kLimitMs), i + 1);
  }
}

TEST(BlockedWorkers, PastTheSpareLimitAWaitFailsClearlyInsteadOfStallingTheLoop) {
  ka::test::LogCapture log("ka.eventloop");
  ka::EventLoop loop("capped", 2);
  loop.setMaxSpareThreads(3);
  constexpr int kTasks = 40;
  std::vector<ka::Future<int>> outer;
  for (int i = 0; i < kTasks; ++i) {
    outer.push_back(loop.async([&loop, i] { return loop.async([i] { return i; }).value() + 1; }));
  }
  int succeeded = 0;
  int refused = 0;
  for (int i = 0; i < kTasks; ++i) {
    // Every call ends one way or the other: none hangs.
    ASSERT_NE(outer[i].wait(kLimitMs), ka::FutureState::Running) << "task " << i << " hangs";
    if (outer[i].hasValue(0)) {
      EXPECT_EQ(outer[i].value(0), i + 1);
      ++succeeded;
    } else {
      EXPECT_NE(outer[i].error(0).find("refusing to block"), std::string::npos)
          << outer[i].error(0);
      EXPECT_NE(outer[i].error(0).find("capped"), std::string::npos) << "names the loop";
      ++refused;
    }
  }
  EXPECT_GE(succeeded, 1);
  EXPECT_GE(refused, 1);
  EXPECT_LE(loop.threadCount(), 2 + 3);
  // Unrelated work still runs afterwards.
  EXPECT_EQ(loop.async([] { return 5; }).value(kLimitMs), 5);
  EXPECT_LE(log.warnings(), 2) << "the refusal warning is rate-limited";
}

}  // namespace
