// The announcements on their way to the other daemons: recorded in order, kept while the
// database refuses them and retried on the timer alone, and heard once even when a retry follows
// a recording whose reply was lost.

#include "announcement_outbox.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// What the feed does with one announce call.
enum class Outcome { Recorded, Refused, RecordedButReplyLost };

// A feed that records like the database: once per notice number, whatever the retries.
class ScriptedFeed final : public QV::EventFeed {
 public:
  explicit ScriptedFeed(std::deque<Outcome> script) : script_(std::move(script)) {}

  void announce(const std::string& kind, const std::string&, std::uint64_t notice) override {
    std::lock_guard lock(mutex_);
    const Outcome outcome = script_.empty() ? Outcome::Recorded : script_.front();
    if (!script_.empty()) {
      script_.pop_front();
    }
    if (outcome != Outcome::Refused && notices_.insert(notice).second) {
      heard_.push_back(kind);
      changed_.notify_all();
    }
    if (outcome != Outcome::Recorded) {
      throw std::runtime_error("the database is unreachable");
    }
  }
  void follow(const std::string&, EventHandler) override {}

  // What the other daemons heard, once `count` announcements were recorded (or the limit passed).
  std::vector<std::string> heardOnce(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 10s, [&] { return heard_.size() >= count; });
    return heard_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Outcome> script_;       // guarded by mutex_
  std::set<std::uint64_t> notices_;  // guarded by mutex_
  std::vector<std::string> heard_;   // guarded by mutex_
};

struct Case {
  const char* name;
  std::deque<Outcome> script;  // the feed's answers, in call order; then Recorded
  std::size_t limit;
  std::vector<std::string> posted;
  std::vector<std::string> heard;
};

void PrintTo(const Case& c, std::ostream* os) {
  *os << c.name;
}

using O = Outcome;
const Case kCases[] = {
    {"AreRecordedInTheOrderPosted", {}, 100, {"a", "b", "c"}, {"a", "b", "c"}},
    {"OneRefusedIsRecordedByTheTimerWithoutAnotherPost", {O::Refused}, 100, {"a"}, {"a"}},
    {"OneWhoseReplyWasLostIsHeardOnce", {O::RecordedButReplyLost}, 100, {"a"}, {"a"}},
    {"ThoseLeftBehindGoFirstInOrder",
     {O::Refused, O::Refused, O::Refused},
     100,
     {"a", "b"},
     {"a", "b"}},
    {"ALostReplyInTheMiddleRepeatsNothing",
     {O::Recorded, O::RecordedButReplyLost, O::Refused},
     100,
     {"a", "b", "c"},
     {"a", "b", "c"}},
    {"PastTheLimitTheOldestAreDropped",
     {O::Refused, O::Refused, O::Refused, O::Refused, O::Refused, O::Refused},
     2,
     {"a", "b", "c"},
     {"b", "c"}},
};

class AnnouncementsPosted : public testing::TestWithParam<Case> {};

TEST_P(AnnouncementsPosted, ReachTheOtherDaemonsOnceEach) {
  const Case& c = GetParam();
  auto feed = std::make_shared<ScriptedFeed>(c.script);
  qvuserinfod::AnnouncementOutbox outbox(feed, 5ms, c.limit);
  for (const std::string& kind : c.posted) {
    outbox.post(kind, "payload");
  }
  EXPECT_EQ(feed->heardOnce(c.heard.size()), c.heard);
  // Nothing is left to retry once all were heard: the timer never records one twice.
  for (auto limit = std::chrono::steady_clock::now() + 10s;
       outbox.waiting() > 0 && std::chrono::steady_clock::now() < limit;) {
    std::this_thread::yield();
  }
  EXPECT_EQ(outbox.waiting(), 0u);
  EXPECT_EQ(feed->heardOnce(c.heard.size()), c.heard);
}

INSTANTIATE_TEST_SUITE_P(Cases, AnnouncementsPosted, testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
