// KnowledgeClient against the real service, in this process and over a connection: each method
// reaches the method of its name with its arguments in order, and errors pass through.

#include <qvknowledge/knowledge_client.hpp>
#include <qvknowledge/knowledge_service.hpp>
#include <qvsqlite/sqlite_triplet_store.hpp>
#include <qvsqlite/sqlite_user_store.hpp>

#include <ka/future.hpp>

#include <gtest/gtest.h>

#include <atomic>

namespace {

using Strings = std::vector<std::string>;
using Rows = std::vector<Strings>;
constexpr int kWaitMs = 10000;

class KnowledgeClientTest : public ::testing::TestWithParam<bool> {
 protected:
  KnowledgeClientTest() {
    owner->registerService(QV::KnowledgeClient::kServiceName, QV::makeKnowledgeObject(store))
        .value(kWaitMs);
    if (GetParam()) {
      static std::atomic<int> next{0};
      const std::string url = "local://knowledgeclient." + std::to_string(next++);
      owner->listen(url).value(kWaitMs);
      client->connect(url).value(kWaitMs);
    } else {
      client = ka::makeSession(owner);
    }
    knowledge =
        QV::KnowledgeClient(client->service(QV::KnowledgeClient::kServiceName).value(kWaitMs));
  }
  ~KnowledgeClientTest() override {
    client->close();
    owner->close();
  }

  std::shared_ptr<QV::TripletStore> store = std::make_shared<QV::SqliteTripletStore>(":memory:");
  ka::SessionPtr owner = ka::makeSession();
  ka::SessionPtr client = ka::makeSession();
  QV::KnowledgeClient knowledge;
};

TEST_P(KnowledgeClientTest, EachMethodReachesItsNamesakeWithTheArgumentsInOrder) {
  knowledge.update("d", "s", "p", "o1");
  knowledge.add("d", "s", "p", "o2");
  knowledge.add("d", "t", "p", "o3");
  EXPECT_EQ(store->getObject("d", "s", "p"), (Strings{"o1", "o2"}));
  EXPECT_EQ(knowledge.getObject("d", "s", "p"), (Strings{"o1", "o2"}));
  EXPECT_EQ(knowledge.getObject("s", "d", "p"), Strings{});
  EXPECT_TRUE(knowledge.contains("d", "t", "p", "o3"));
  EXPECT_FALSE(knowledge.contains("d", "p", "t", "o3"));
  EXPECT_EQ(knowledge.queryTriplet("d", "*", "p", "o3"), (Rows{{"d", "t", "p", "o3"}}));
  knowledge.remove("d", "s", "?", "o1");
  EXPECT_EQ(store->queryTriplet("*", "*", "*", "*"),
            (Rows{{"d", "s", "p", "o2"}, {"d", "t", "p", "o3"}}));
}

TEST_P(KnowledgeClientTest, FailuresReachTheCallerWithTheirText) {
  const struct {
    const char* what;
    QV::KnowledgeClient client;
    std::string error;
  } cases[] = {
      {"an empty handle", QV::KnowledgeClient(), "This object is null"},
      {"another service", QV::KnowledgeClient(client->service("ServiceDirectory").value(kWaitMs)),
       "getObject"},
  };
  for (const auto& c : cases) {
    try {
      (void)c.client.getObject("d", "s", "p");
      ADD_FAILURE() << c.what;
    } catch (const std::exception& e) {
      EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos)
          << c.what << ": " << e.what();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sessions, KnowledgeClientTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Joined" : "Peer"; });

}  // namespace
