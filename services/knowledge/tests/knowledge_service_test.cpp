// The knowledge store served as "QVKnowledge": signatures, calls and argument checks.

#include <qvknowledge/knowledge_service.hpp>
#include <qvsqlite/sqlite_triplet_store.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

constexpr int kWaitMs = 10000;
using Rows = std::vector<std::vector<std::string>>;
using Strings = std::vector<std::string>;

class KnowledgeOverSession : public ::testing::Test {
 protected:
  void SetUp() override {
    session = ka::makeSession();
    QV::registerKnowledgeService(session, std::make_shared<QV::SqliteTripletStore>(":memory:"))
        .value(kWaitMs);
    kb = session->service("QVKnowledge").value(kWaitMs);
  }
  // Calls `method` with string arguments only, as every client of the service does.
  template <typename R, typename... Args>
  R call(const std::string& method, const Args&... args) {
    return kb->call<R>(method, std::string(args)...);
  }
  ka::SessionPtr session;
  ka::AnyObject kb;
};

TEST_F(KnowledgeOverSession, AdvertisesExactlyTheStringMethods) {
  std::set<std::string> methods;
  for (const auto& m : kb->metaObject().methods()) {
    methods.insert(m.name + m.parametersSignature().toString() + m.returnSignature().toString());
  }
  EXPECT_EQ(methods,
            (std::set<std::string>{"add(ssss)v", "contains(ssss)b", "getObject(sss)[s]",
                                   "queryTriplet(ssss)[[s]]", "remove(ssss)v", "update(ssss)v"}));
}

TEST_F(KnowledgeOverSession, PassesEveryCallAndBothWildcardsThroughToTheStore) {
  call<void>("add", "dom", "7", "name", "a");
  call<void>("add", "dom", "7", "name", "b");
  EXPECT_EQ(call<Strings>("getObject", "dom", "7", "name"), (Strings{"a", "b"}));
  call<void>("update", "dom", "7", "name", "c");
  EXPECT_EQ(call<Rows>("queryTriplet", "*", "7", "*", "*"), (Rows{{"dom", "7", "name", "c"}}));
  EXPECT_TRUE(call<Rows>("queryTriplet", "?", "7", "?", "?").empty());
  EXPECT_TRUE(call<bool>("contains", "dom", "7", "?", "?"));
  EXPECT_FALSE(call<bool>("contains", "dom", "7", "*", "*"));
  call<void>("remove", "dom", "7", "?", "?");
  EXPECT_TRUE(call<Strings>("getObject", "dom", "7", "name").empty());
}

TEST_F(KnowledgeOverSession, RefusesArgumentsOfTheWrongTypeOrCountAndStoresNothing) {
  EXPECT_THAT(
      [&] { kb->call<void>("update", std::string("dom"), 7, std::string("n"), std::string("x")); },
      ::testing::ThrowsMessage<std::runtime_error>(::testing::HasSubstr("update")));
  EXPECT_THROW(call<void>("update", "only three", "a", "b"), std::runtime_error);
  EXPECT_TRUE(call<Rows>("queryTriplet", "*", "*", "*", "*").empty());
}

}  // namespace
