#pragma once
// What fuzz_frame_decoder serves and how a client's byte stream is laid out, shared with the
// program that writes its seed corpus so that the seeds call members that exist.

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/genericobject.hpp>

#include "wire/frame_header.hpp"

#include <boost/weak_ptr.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace ka {
namespace fuzz {

// Member ids of the served object, fixed so that seeds stay valid as the object grows.
constexpr unsigned kAddMethod = 11;      // add(i, i) -> i
constexpr unsigned kEchoMethod = 12;     // echo(m) -> m
constexpr unsigned kJoinMethod = 13;     // join([s]) -> s
constexpr unsigned kKeysMethod = 14;     // keys({sm}) -> [s]
constexpr unsigned kPairMethod = 15;     // pair((is)) -> (si)
constexpr unsigned kKeepMethod = 16;     // keep(o) -> o, hands an object handle back
constexpr unsigned kPingMethod = 17;     // ping(s, i) -> v, emits changed(s, i)
constexpr unsigned kWideMethod = 18;     // wide(b, c, C, w, W, I, l, L, f, d) -> d
constexpr unsigned kChangedSignal = 30;  // changed(s, i)

// The name under which the served directory also finds the object.
constexpr const char kServiceName[] = "Calc";

// A small object whose members take every kind of value, so that calls decode every layout.
inline AnyObject makeServedObject() {
  auto self = std::make_shared<boost::weak_ptr<GenericObject>>();
  DynamicObjectBuilder b;
  b.setThreadingModel(ObjectThreadingModel::MultiThread);
  b.advertiseMethod(
      "add", [](int a, int c) { return a + c; }, MetaCallType::Auto, kAddMethod);
  b.advertiseMethod(
      "echo", [](const AnyValue& v) { return v; }, MetaCallType::Auto, kEchoMethod);
  b.advertiseMethod(
      "join",
      [](const std::vector<std::string>& parts) {
        std::string out;
        for (const auto& p : parts) {
          out += p;
        }
        return out;
      },
      MetaCallType::Auto, kJoinMethod);
  b.advertiseMethod(
      "keys",
      [](const std::map<std::string, AnyValue>& fields) {
        std::vector<std::string> out;
        for (const auto& f : fields) {
          out.push_back(f.first);
        }
        return out;
      },
      MetaCallType::Auto, kKeysMethod);
  b.advertiseMethod(
      "pair",
      [](const std::tuple<int, std::string>& t) {
        return std::make_tuple(std::get<1>(t), std::get<0>(t));
      },
      MetaCallType::Auto, kPairMethod);
  b.advertiseMethod(
      "keep", [](const AnyObject& o) { return o; }, MetaCallType::Auto, kKeepMethod);
  b.advertiseMethod(
      "ping",
      [self](const std::string& who, int n) {
        if (const auto object = self->lock()) {
          object->post("changed", who, n);
        }
      },
      MetaCallType::Auto, kPingMethod);
  b.advertiseMethod(
      "wide",
      [](bool, std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::uint32_t, std::int64_t,
         std::uint64_t, float f, double d) { return f + d; },
      MetaCallType::Auto, kWideMethod);
  b.advertiseSignal<std::string, int>("changed", kChangedSignal);
  AnyObject object = b.object();
  *self = object.asGenericObject();
  return object;
}

// One frame as a client writes it on a socket: the 16-byte header, then the body.
inline void appendFrame(std::string& out, std::uint8_t type, std::uint64_t requestId,
                        const std::vector<char>& body) {
  char header[wire::kFrameHeaderSize];
  wire::encodeFrameHeader(type, requestId, static_cast<std::uint32_t>(body.size()), header);
  out.append(header, sizeof header);
  out.append(body.begin(), body.end());
}

}  // namespace fuzz
}  // namespace ka
