// Writes the seed corpus of fuzz_frame_decoder: byte streams a well-behaved client would send,
// each a Hello followed by a few message frames, made by the real encoders. Run once after a
// change of the frame or message layout:
//   build-fuzz/ka/make_frame_seeds ka/fuzz/corpus/frame_decoder
// (the directory must exist; files of the same names are overwritten).
#include <ka/signaturetype.hpp>

#include "frame_fuzz_peer.hpp"
#include "wire/handshake.hpp"
#include "wire/messages.hpp"

#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace ka::wire;
using ka::AnyReference;
using ka::AnyValue;

// Writes every object handle as the client's own object 5, described by its MetaObject.
class ClientObjects : public ObjectCodec {
 public:
  void pack(Packer& pk, const boost::shared_ptr<ka::GenericObject>& object) override {
    packObjectReference(pk, 5, describe(object->metaObject()));
  }
  boost::shared_ptr<ka::GenericObject> unpack(const msgpack::object&) override { return nullptr; }
};

class Stream {
 public:
  Stream() { hello(""); }
  Stream& hello(const std::string& token) {
    ka::fuzz::appendFrame(_bytes, kHelloType, 0, encodeHello(token));
    return *this;
  }
  Stream& frame(const Frame& f) {
    ka::fuzz::appendFrame(_bytes, f.type, f.requestId, f.body);
    return *this;
  }
  Stream& raw(std::uint8_t type, std::uint64_t requestId, const msgpack::sbuffer& body) {
    ka::fuzz::appendFrame(_bytes, type, requestId,
                          std::vector<char>(body.data(), body.data() + body.size()));
    return *this;
  }
  const std::string& bytes() const { return _bytes; }

 private:
  std::string _bytes;
};

Frame call(std::uint64_t id, std::uint32_t object, std::uint32_t method,
           const ka::AnyReferenceVector& args) {
  ClientObjects objects;
  return encodeCall(id, object, method, args, &objects);
}

Frame reply(std::uint64_t id, const AnyReference& value) {
  ClientObjects objects;
  return encodeReply(id, value, &objects);
}

std::uint8_t type(MessageType t) {
  return static_cast<std::uint8_t>(t);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  using namespace ka::fuzz;
  const ka::AnyObject served = makeServedObject();
  const ka::AnyObject client = makeServedObject();  // any object will do as the client's own
  const int two = 2;
  const int three = 3;
  const std::int64_t wide = 3;
  const std::string ann = "ann";
  const std::vector<std::string> parts = {"a", "bc", ""};
  const std::map<std::string, AnyValue> fields = {{"k", AnyValue(1)},
                                                  {"l", AnyValue(std::string("v"))}};
  const std::tuple<int, std::string> pair(7, "x");
  const AnyValue nested(std::vector<AnyValue>{AnyValue(1), AnyValue(parts)});
  const ka::AnyObject none;
  msgpack::sbuffer unknownBody;
  Packer(unknownBody).pack_array(0);
  msgpack::sbuffer tooShort;
  Packer(tooShort).pack_array(1).pack(1);

  const std::map<std::string, Stream> seeds = {
      {"hello", Stream()},
      {"hello-token", Stream().hello("fuzz-token")},
      {"call-add", Stream().frame(call(1, 1, kAddMethod,
                                       {AnyReference::from(two), AnyReference::from(three)}))},
      {"call-add-int64",
       Stream().frame(
           call(2, 1, kAddMethod, {AnyReference::from(wide), AnyReference::from(three)}))},
      {"call-add-wrong-count", Stream().frame(call(3, 1, kAddMethod, {AnyReference::from(two)}))},
      {"call-echo-int", Stream().frame(call(4, 1, kEchoMethod, {AnyReference::from(AnyValue(2))}))},
      {"call-echo-string", Stream().frame(call(5, 1, kEchoMethod, {AnyReference::from(ann)}))},
      {"call-echo-nested", Stream().frame(call(6, 1, kEchoMethod, {AnyReference::from(nested)}))},
      {"call-echo-void",
       Stream().frame(call(7, 1, kEchoMethod, {AnyReference::from(AnyValue::makeVoid())}))},
      {"call-echo-empty",
       Stream().frame(call(8, 1, kEchoMethod, {AnyReference::from(AnyValue())}))},
      {"call-join", Stream().frame(call(9, 1, kJoinMethod, {AnyReference::from(parts)}))},
      {"call-keys", Stream().frame(call(10, 1, kKeysMethod, {AnyReference::from(fields)}))},
      {"call-pair", Stream().frame(call(11, 1, kPairMethod, {AnyReference::from(pair)}))},
      {"call-keep-null", Stream().frame(call(12, 1, kKeepMethod, {AnyReference::from(none)}))},
      {"call-keep-handle-release",
       Stream()
           .frame(call(13, 1, kKeepMethod, {AnyReference::from(client)}))
           .frame(encodeRelease(ReleaseMessage{2, 1}))},
      {"call-echo-handle",
       Stream().frame(call(14, 1, kEchoMethod, {AnyReference::from(AnyValue(client))}))},
      {"call-wide",
       Stream().frame(call(
           15, 1, kWideMethod,
           {AnyReference::from(true), AnyReference::from(std::int8_t(-1)),
            AnyReference::from(std::uint8_t(255)), AnyReference::from(std::int16_t(-300)),
            AnyReference::from(std::uint16_t(60000)),
            AnyReference::from(std::uint32_t(4000000000u)),
            AnyReference::from(std::int64_t(-5000000000)), AnyReference::from(std::uint64_t(~0ull)),
            AnyReference::from(1.5f), AnyReference::from(2.25)}))},
      {"call-unknown-method", Stream().frame(call(16, 1, 99, {}))},
      {"call-unknown-object", Stream().frame(call(17, 9, kAddMethod, {}))},
      {"call-no-request-id",
       Stream().frame(
           call(0, 1, kAddMethod, {AnyReference::from(two), AnyReference::from(three)}))},
      {"connect-ping-disconnect",
       Stream()
           .frame(encodeConnect(18, ConnectMessage{1, kChangedSignal, 1}))
           .frame(call(19, 1, kPingMethod, {AnyReference::from(ann), AnyReference::from(two)}))
           .frame(encodeDisconnect(20, 1))},
      {"connect-twice", Stream()
                            .frame(encodeConnect(21, ConnectMessage{1, kChangedSignal, 2}))
                            .frame(encodeConnect(22, ConnectMessage{1, kChangedSignal, 2}))},
      {"connect-unknown-signal", Stream().frame(encodeConnect(23, ConnectMessage{1, 99, 3}))},
      {"disconnect-unknown", Stream().frame(encodeDisconnect(24, 77))},
      {"lookup-service", Stream().frame(encodeLookup(25, kServiceName))},
      {"lookup-directory", Stream().frame(encodeLookup(26, "ServiceDirectory"))},
      {"lookup-unknown", Stream().frame(encodeLookup(27, "Nobody"))},
      {"reply-int", Stream().frame(reply(1, AnyReference::from(AnyValue(5))))},
      {"reply-handle", Stream().frame(reply(2, AnyReference::from(client)))},
      {"reply-void", Stream().frame(reply(3, AnyReference::from(AnyValue::makeVoid())))},
      {"error", Stream().frame(encodeError(4, "Cannot find service \"Peer\""))},
      {"event",
       Stream().frame(encodeEvent(1, kChangedSignal, 1,
                                  {AnyReference::from(ann), AnyReference::from(two)}, nullptr))},
      {"release-directory", Stream().frame(encodeRelease(ReleaseMessage{1, 1}))},
      {"unknown-type", Stream().raw(0x09, 28, unknownBody)},
      {"lookup-short-body", Stream().raw(type(MessageType::Lookup), 29, unknownBody)},
      {"call-short-body", Stream().raw(type(MessageType::Call), 30, tooShort)},
  };
  for (const auto& seed : seeds) {
    std::ofstream out(dir + "/" + seed.first, std::ios::binary | std::ios::trunc);
    out.write(seed.second.bytes().data(), static_cast<std::streamsize>(seed.second.bytes().size()));
    if (!out) {
      std::fprintf(stderr, "cannot write %s/%s\n", dir.c_str(), seed.first.c_str());
      return 1;
    }
  }
  std::printf("%zu seeds written to %s\n", seeds.size(), dir.c_str());
  return 0;
}
