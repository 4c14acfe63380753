#include <qvknowledge/knowledge_service.hpp>

#include <gtest/gtest.h>

#include <map>

#include <atomic>
#include <thread>

namespace {

constexpr int kWaitMs = 10000;
using Rows = std::vector<std::vector<std::string>>;
using Strings = std::vector<std::string>;

class KnowledgeOverSession : public ::testing::Test {
 protected:
  void SetUp() override {
    session = ka::makeSession();
    QV::registerKnowledgeService(session, ":memory:").value(kWaitMs);
    kb = session->service("QVKnowledge").value(kWaitMs);
  }
  Strings getObject(const std::string& d, const std::string& s, const std::string& p) {
    return kb->call<Strings>("getObject", d, s, p);
  }
  ka::SessionPtr session;
  ka::AnyObject kb;
};

TEST_F(KnowledgeOverSession, AdvertisesExactlyTheStringMethods) {
  std::map<std::string, std::string> sigs;
  for (const auto& m : kb->metaObject().methods()) {
    sigs[m.name] = m.parametersSignature().toString() + m.returnSignature().toString();
  }
  EXPECT_EQ(sigs, (std::map<std::string, std::string>{{"getObject", "(sss)[s]"},
                                                      {"contains", "(ssss)b"},
                                                      {"update", "(ssss)v"},
                                                      {"remove", "(ssss)v"},
                                                      {"queryTriplet", "(ssss)[[s]]"},
                                                      {"add", "(ssss)v"}}));
}

TEST_F(KnowledgeOverSession, UpdateReplacesEveryEarlierObject) {
  const std::string d = "dom";
  kb->call<void>("add", d, std::string("7"), std::string("name"), std::string("a"));
  kb->call<void>("add", d, std::string("7"), std::string("name"), std::string("b"));
  EXPECT_EQ(getObject(d, "7", "name"), (Strings{"a", "b"}));
  kb->call<void>("update", d, std::string("7"), std::string("name"), std::string("c"));
  EXPECT_EQ(getObject(d, "7", "name"), (Strings{"c"}));
}

TEST_F(KnowledgeOverSession, KeepsTheTwoWildcardsApart) {
  const std::string d = "dom";
  kb->call<void>("update", d, std::string("7"), std::string("age"), std::string("30"));
  EXPECT_TRUE(kb->call<bool>("contains", d, std::string("7"), std::string("?"), std::string("?")));
  EXPECT_FALSE(kb->call<bool>("contains", d, std::string("7"), std::string("*"), std::string("*")));
  const auto star = kb->call<Rows>("queryTriplet", std::string("*"), std::string("7"),
                                   std::string("*"), std::string("*"));
  EXPECT_EQ(star, (Rows{{"dom", "7", "age", "30"}}));
  EXPECT_TRUE(kb->call<Rows>("queryTriplet", std::string("?"), std::string("7"), std::string("?"),
                             std::string("?"))
                  .empty());
  kb->call<void>("remove", d, std::string("7"), std::string("?"), std::string("?"));
  EXPECT_TRUE(getObject(d, "7", "age").empty());
}

TEST_F(KnowledgeOverSession, RefusesArgumentsOfTheWrongTypeAndStoresNothing) {
  try {
    kb->call<void>("update", std::string("dom"), 7, std::string("name"), std::string("x"));
    FAIL() << "an int subject must be refused";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("update"), std::string::npos) << e.what();
  }
  EXPECT_TRUE(kb->call<Rows>("queryTriplet", std::string("*"), std::string("*"), std::string("*"),
                             std::string("*"))
                  .empty());
  EXPECT_THROW(
      kb->call<void>("update", std::string("only three"), std::string("a"), std::string("b")),
      std::runtime_error);
}

TEST_F(KnowledgeOverSession, ServesReadersWhileAWriterUpdates) {
  const std::string d = "dom";
  kb->call<void>("update", d, std::string("1"), std::string("k"), std::string("0"));
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (!stop) {
        if (getObject(d, "1", "k").size() != 1) {
          ++torn;
        }
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    kb->call<void>("update", d, std::string("1"), std::string("k"), std::to_string(i));
  }
  stop = true;
  for (auto& t : readers) {
    t.join();
  }
  EXPECT_EQ(torn.load(), 0);
  EXPECT_EQ(getObject(d, "1", "k"), (Strings{"199"}));
}

TEST(KnowledgeRegistration, FailsClearlyForAFileThatIsNotAStore) {
  auto session = ka::makeSession();
  EXPECT_THROW(QV::registerKnowledgeService(session, "/proc/version"), QV::KnowledgeStoreError);
  EXPECT_TRUE(session->service("QVKnowledge").hasError(kWaitMs));
}

}  // namespace
