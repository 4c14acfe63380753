// The message layer on its own: two Connections over an in-process channel pair that the tests
// slow down or cut, and a hand-driven peer that sends what a broken or hostile client would.

#include "wire/connection.hpp"
#include "wire/local_channel.hpp"
#include "wire/messages.hpp"

#include "../test_util.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <map>

namespace {

using namespace ka::wire;

constexpr int kWaitMs = 10000;
constexpr auto kWait = std::chrono::milliseconds(kWaitMs);

using ka::test::becomes;
using ka::test::contains;

ka::AnyObject echoObject() {
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  b.advertiseMethod("echo", [](const std::string& s) { return s; });
  b.advertiseMethod("twice", [](int i) { return 2 * i; });
  b.advertiseMethod("make", [] {
    ka::DynamicObjectBuilder made;
    made.advertiseMethod("hello", [] { return std::string("made"); });
    return made.object();
  });
  b.advertiseSignal<int>("ticked");
  return b.object();
}

// A serving Connection with named objects, and a client Connection to it.
struct ConnectedPair {
  explicit ConnectedPair(std::map<std::string, ka::AnyObject> named) : services(std::move(named)) {
    auto ends = LocalChannel::makePair("local://pair");
    clientEnd = ends.first;
    serverEnd = ends.second;
    server = Connection::create(
        serverEnd, ServedDirectory{echoObject(), [named = services](const std::string& n) {
                                     const auto it = named.find(n);
                                     return it == named.end() ? ka::AnyObject() : it->second;
                                   }});
    // The handler runs on the event loop, maybe after this pair is gone.
    server->start(
        [closed = serverClosed](const std::string& reason) { closed->set_value(reason); });
    client = Connection::create(clientEnd);
    client->start();
  }
  ~ConnectedPair() {
    client->close("the test ended");
    server->close("the test ended");
  }

  const std::map<std::string, ka::AnyObject> services;
  std::shared_ptr<LocalChannel> clientEnd;
  std::shared_ptr<LocalChannel> serverEnd;
  std::shared_ptr<Connection> server;
  std::shared_ptr<Connection> client;
  const std::shared_ptr<std::promise<std::string>> serverClosed =
      std::make_shared<std::promise<std::string>>();
};

// An object whose "wait" answers only when the test sets `answer`, and "now" at once.
struct Waiter {
  Waiter() {
    ka::DynamicObjectBuilder b;
    b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
    auto a = answer;
    b.advertiseMethod("wait", [a] { return a->future(); });
    b.advertiseMethod("now", [] { return 1; });
    object = b.object();
  }
  std::shared_ptr<ka::Promise<int>> answer = std::make_shared<ka::Promise<int>>();
  ka::AnyObject object;
};

TEST(ConnectionLoss, ACutFailsTheCallsWaitingOnItAtOnceAndLaterCallsFindTheObjectGone) {
  Waiter waiter;
  ConnectedPair p({{"Waiter", waiter.object}});
  ka::AnyObject remote = p.client->lookup("Waiter").value(kWaitMs);
  const auto pending = remote->async<int>("wait");
  EXPECT_EQ(remote->call<int>("now"), 1);  // a blocked method holds nothing up
  auto closed = p.serverClosed->get_future();

  p.clientEnd->cut("network unreachable");
  EXPECT_EQ(pending.error(kWaitMs), "Connection lost to local://pair: network unreachable");
  EXPECT_EQ(remote->async<int>("now").error(kWaitMs), "Invalid GenericObject");
  EXPECT_EQ(p.client->lookup("Waiter").error(kWaitMs),
            "Connection lost to local://pair: network unreachable");
  // The serving side forgets what it exported to the participant that went.
  ASSERT_EQ(closed.wait_for(kWait), std::future_status::ready);
  EXPECT_EQ(p.server->exportCount(), 0u);
  waiter.answer->setValue(0);
}

TEST(ConnectionLoss, ARequestOrAReplyLostOnTheWayFailsTheCall) {
  Waiter waiter;
  {
    ConnectedPair p({{"Waiter", waiter.object}});
    ka::AnyObject remote = p.client->lookup("Waiter").value(kWaitMs);
    p.clientEnd->cutOnSend(1, "broken pipe");
    EXPECT_EQ(remote->async<int>("now").error(kWaitMs),
              "Connection lost to local://pair: broken pipe");
  }
  {
    ConnectedPair p({{"Waiter", waiter.object}});
    ka::AnyObject remote = p.client->lookup("Waiter").value(kWaitMs);
    p.serverEnd->cutOnSend(1, "reset by peer");
    EXPECT_EQ(remote->async<int>("now").error(kWaitMs),
              "Connection lost to local://pair: reset by peer");
  }
  waiter.answer->setValue(0);
}

TEST(SlowLink, RepliesGoOutInCompletionOrderWithTheirRequestIds) {
  Waiter waiter;
  ConnectedPair p({{"Waiter", waiter.object}});
  ka::AnyObject remote = p.client->lookup("Waiter").value(kWaitMs);
  p.clientEnd->setDeliveryDelay(std::chrono::milliseconds(20));
  p.serverEnd->setDeliveryDelay(std::chrono::milliseconds(20));
  std::mutex m;
  std::vector<std::uint64_t> replies;
  p.serverEnd->observeSends([&](const Frame& f) {
    std::lock_guard<std::mutex> lock(m);
    replies.push_back(f.requestId);
  });
  const auto slow = remote->async<int>("wait");
  const auto fast = remote->async<int>("now");
  EXPECT_EQ(fast.value(kWaitMs), 1);
  waiter.answer->setValue(7);
  EXPECT_EQ(slow.value(kWaitMs), 7);
  std::lock_guard<std::mutex> lock(m);
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(replies[0], replies[1] + 1);  // the later request was answered first
}

TEST(ObjectHandles, EveryHandleOnOneRemoteObjectIsTheSameAndDroppedHandlesAreReleased) {
  ConnectedPair p({{"Echo", echoObject()}});
  {
    ka::AnyObject a = p.client->lookup("Echo").value(kWaitMs);
    ka::AnyObject b = p.client->lookup("Echo").value(kWaitMs);
    EXPECT_EQ(a, b);
    EXPECT_EQ(p.server->exportCount(), 2u);  // the directory and Echo
    // An object returned by a method travels as a handle too.
    ka::AnyObject made = a->call<ka::AnyObject>("make");
    EXPECT_EQ(made->call<std::string>("hello"), "made");
    EXPECT_EQ(p.server->exportCount(), 3u);
    EXPECT_EQ(p.client->importCount(), 2u);
  }
  // A reply's value lives in its future's state until the thread that answered lets go of
  // it, a moment after the caller has its copy, so the last handle may drop there.
  EXPECT_TRUE(becomes([&] { return p.client->importCount() == 0u; }));
  EXPECT_TRUE(becomes([&] { return p.server->exportCount() == 1u; }))
      << "the server still holds " << p.server->exportCount() << " objects";
}

// The client side of a connection driven by hand: frames in, frames out.
struct RawPeer {
  RawPeer() {
    auto ends = LocalChannel::makePair("local://raw");
    raw = ends.first;
    other = ends.second;
    raw->start(
        [this](Frame f) {
          std::lock_guard<std::mutex> lock(m);
          received.push_back(std::move(f));
          cv.notify_all();
        },
        [](const std::string&) {});
  }
  // Frames still queued are delivered after a close, to the handler that uses the members below:
  // the delivery thread is joined (with the last handle on `raw`) before they go.
  ~RawPeer() {
    raw->close("the test ended");
    raw.reset();
  }

  // The first received frame answering `requestId` (Frame{} with type 0 when none came).
  Frame answerTo(std::uint64_t requestId) {
    std::unique_lock<std::mutex> lock(m);
    Frame found;
    cv.wait_for(lock, kWait, [&] {
      for (const auto& f : received) {
        if (f.requestId == requestId) {
          found = f;
          return true;
        }
      }
      return false;
    });
    return found;
  }
  std::string errorOf(std::uint64_t requestId) {
    const Frame f = answerTo(requestId);
    EXPECT_EQ(f.type, static_cast<std::uint8_t>(MessageType::Error)) << "request " << requestId;
    return f.type == static_cast<std::uint8_t>(MessageType::Error) ? decodeError(f) : "";
  }

  std::shared_ptr<LocalChannel> raw;
  std::shared_ptr<LocalChannel> other;
  std::mutex m;
  std::condition_variable cv;
  std::vector<Frame> received;
};

Frame rawFrame(std::uint8_t type, std::uint64_t requestId, const std::string& body) {
  Frame f;
  f.type = type;
  f.requestId = requestId;
  f.body.assign(body.begin(), body.end());
  return f;
}

// A call whose arguments are packed as they are, whatever `signature` claims.
template <typename... Args>
Frame callFrame(std::uint64_t requestId, std::uint32_t object, std::uint32_t method,
                const std::string& signature, const Args&... args) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(4);
  pk.pack(object);
  pk.pack(method);
  pk.pack(signature);
  pk.pack_array(sizeof...(args));
  (pk.pack(args), ...);
  return rawFrame(static_cast<std::uint8_t>(MessageType::Call), requestId,
                  std::string(buffer.data(), buffer.size()));
}

TEST(HostilePeer, GetsErrorRepliesForWhatItGetsWrongWhileTheServerKeepsServing) {
  RawPeer peer;
  const ka::AnyObject echo = echoObject();
  auto server = Connection::create(peer.other,
                                   ServedDirectory{echoObject(), [echo](const std::string& name) {
                                                     return name == "Echo" ? echo : ka::AnyObject();
                                                   }});
  server->start();
  const std::uint32_t twice = echo->metaObject().methodsNamed("twice").front()->uid;

  peer.raw->send(rawFrame(99, 1, ""));
  EXPECT_EQ(peer.errorOf(1), "Unknown message type 99");
  peer.raw->send(rawFrame(static_cast<std::uint8_t>(MessageType::Call), 2, "\xc1garbage"));
  EXPECT_TRUE(contains(peer.errorOf(2), "call: malformed body"));
  peer.raw->send(callFrame(3, 77, twice, "(i)", 1));
  EXPECT_EQ(peer.errorOf(3), "Invalid GenericObject");
  peer.raw->send(callFrame(4, kDirectoryObjectId, 1, "(X)", 1));
  EXPECT_TRUE(contains(peer.errorOf(4), "bad signature"));
  peer.raw->send(callFrame(5, kDirectoryObjectId, 1, "(ii)", 1));
  EXPECT_TRUE(contains(peer.errorOf(5), "array of 2 values"));
  peer.raw->send(callFrame(6, kDirectoryObjectId, 1, "(i)", std::string("text")));
  EXPECT_TRUE(contains(peer.errorOf(6), "expected i"));
  peer.raw->send(encodeLookup(7, "Nope"));
  EXPECT_EQ(peer.errorOf(7), "Cannot find service \"Nope\"");
  // A lookup works, and so do calls on what it found, with the server converting arguments.
  peer.raw->send(encodeLookup(8, "Echo"));
  const Frame found = peer.answerTo(8);
  ASSERT_EQ(found.type, static_cast<std::uint8_t>(MessageType::Reply));
  msgpack::object_handle body = msgpack::unpack(found.body.data(), found.body.size());
  const ObjectReference ref = unpackObjectReference(body.get().via.array.ptr[1]);
  peer.raw->send(callFrame(9, ref.id, twice, "(s)", std::string("x")));
  EXPECT_TRUE(contains(peer.errorOf(9), "Invalid arguments for twice(i)"));
  peer.raw->send(callFrame(10, ref.id, twice, "(l)", 21));
  const Frame doubled = peer.answerTo(10);
  ASSERT_EQ(doubled.type, static_cast<std::uint8_t>(MessageType::Reply));
  EXPECT_EQ(decodeReply(doubled, nullptr).toInt64(), 42);
  EXPECT_TRUE(server->isOpen());
  server->close("the test ended");
}

TEST(HostilePeer, ARequestWithoutARequestIdIsNeitherRunNorAnswered) {
  RawPeer peer;
  auto bumps = std::make_shared<std::atomic<int>>(0);
  ka::DynamicObjectBuilder b;
  // Single-threaded: its calls run in arrival order, so once a later call has answered, an
  // earlier one would have run.
  b.setThreadingModel(ka::ObjectThreadingModel::SingleThread);
  b.advertiseMethod("bump", [bumps] { return ++*bumps; });
  const ka::AnyObject counter = b.object();
  auto server = Connection::create(
      peer.other, ServedDirectory{echoObject(), [counter](const std::string& name) {
                                    return name == "Counter" ? counter : ka::AnyObject();
                                  }});
  server->start();
  const std::uint32_t bump = counter->metaObject().methodsNamed("bump").front()->uid;

  peer.raw->send(encodeLookup(0, "Counter"));
  peer.raw->send(encodeLookup(1, "Counter"));
  const Frame found = peer.answerTo(1);
  ASSERT_EQ(found.type, static_cast<std::uint8_t>(MessageType::Reply));
  msgpack::object_handle body = msgpack::unpack(found.body.data(), found.body.size());
  const ObjectReference ref = unpackObjectReference(body.get().via.array.ptr[1]);
  peer.raw->send(callFrame(0, ref.id, bump, "()"));
  peer.raw->send(callFrame(2, ref.id, bump, "()"));
  const Frame answered = peer.answerTo(2);
  ASSERT_EQ(answered.type, static_cast<std::uint8_t>(MessageType::Reply));
  EXPECT_EQ(decodeReply(answered, nullptr).toInt64(), 1);
  EXPECT_EQ(bumps->load(), 1);
  {
    std::lock_guard<std::mutex> lock(peer.m);
    for (const auto& f : peer.received) {
      EXPECT_NE(f.requestId, 0u) << "an answer to a request without an id";
    }
  }
  EXPECT_TRUE(server->isOpen());
  server->close("the test ended");
}

// A served object described by hand: method 5 "answer" -> i, signal 6 "ticked" (i).
ObjectDescription handDescription() {
  ObjectDescription d;
  d.methods.push_back({5, "answer", ka::Signature("()"), ka::Signature("i")});
  d.signals.push_back({6, "ticked", ka::Signature("(i)")});
  return d;
}

Frame objectReply(std::uint64_t requestId, std::uint32_t id) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(2);
  pk.pack(std::string("o"));
  packObjectReference(pk, id, handDescription());
  return rawFrame(static_cast<std::uint8_t>(MessageType::Reply), requestId,
                  std::string(buffer.data(), buffer.size()));
}

TEST(HostilePeer, AReplyThatDoesNotFitTheAdvertisedResultFailsWithAConversionError) {
  RawPeer peer;
  auto client = Connection::create(peer.other);
  client->start();
  auto found = client->lookup("Thing");
  const Frame lookup = peer.answerTo(1);
  ASSERT_EQ(lookup.type, static_cast<std::uint8_t>(MessageType::Lookup));
  peer.raw->send(objectReply(1, 9));
  ka::AnyObject thing = found.value(kWaitMs);

  auto text = thing->async<int>("answer");
  peer.raw->send(encodeReply(2, ka::AnyValue(std::string("x")), nullptr));
  EXPECT_TRUE(contains(text.error(kWaitMs), "Return argument conversion error: "));
  auto fits = thing->async<int>("answer");
  peer.raw->send(encodeReply(3, ka::AnyValue(std::int64_t(5)), nullptr));
  EXPECT_EQ(fits.value(kWaitMs), 5);
  auto tooBig = thing->async<int>("answer");
  peer.raw->send(encodeReply(4, ka::AnyValue(std::int64_t(1) << 40), nullptr));
  EXPECT_TRUE(contains(tooBig.error(kWaitMs), "Return argument conversion error: "));
  client->close("the test ended");
}

TEST(HostilePeer, CannotDeliverEventsNobodySubscribedTo) {
  RawPeer peer;
  auto client = Connection::create(peer.other);
  client->start();
  auto found = client->lookup("Thing");
  peer.answerTo(1);
  peer.raw->send(objectReply(1, 9));
  ka::AnyObject thing = found.value(kWaitMs);

  std::mutex m;
  std::condition_variable cv;
  std::vector<int> seen;
  auto linked = thing->connect("ticked", [&](int v) {
    std::lock_guard<std::mutex> lock(m);
    seen.push_back(v);
    cv.notify_all();
  });
  const Frame connect = peer.answerTo(2);
  ASSERT_EQ(connect.type, static_cast<std::uint8_t>(MessageType::Connect));
  const ConnectMessage subscription = decodeConnect(connect);
  EXPECT_EQ(subscription.object, 9u);
  EXPECT_EQ(subscription.signal, 6u);
  peer.raw->send(encodeReply(2, ka::AnyValue::makeVoid(), nullptr));
  const ka::SignalLink link = linked.value(kWaitMs);

  auto event = [&](std::uint32_t object, std::uint64_t sub, int value) {
    const ka::AnyValue v(value);
    peer.raw->send(encodeEvent(object, 6, sub, {v.asReference()}, nullptr));
  };
  event(9, subscription.subscription + 1, 1);  // nobody's subscription
  event(8, subscription.subscription, 2);      // another object
  event(9, subscription.subscription, 3);
  {
    std::unique_lock<std::mutex> lock(m);
    cv.wait_for(lock, kWait, [&] { return !seen.empty(); });
    EXPECT_EQ(seen, std::vector<int>{3});
  }
  auto unlinked = thing->disconnect(link);
  peer.answerTo(3);
  event(9, subscription.subscription, 4);  // after the subscription ended
  peer.raw->send(encodeReply(3, ka::AnyValue::makeVoid(), nullptr));
  unlinked.value(kWaitMs);
  // A round trip after the late event: it was handled (and dropped) before this answer.
  auto again = thing->async<int>("answer");
  peer.raw->send(encodeReply(4, ka::AnyValue(1), nullptr));
  EXPECT_EQ(again.value(kWaitMs), 1);
  std::lock_guard<std::mutex> lock(m);
  EXPECT_EQ(seen, std::vector<int>{3});
  client->close("the test ended");
}

}  // namespace
