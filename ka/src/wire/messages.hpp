#pragma once
// The messages two participants exchange over a Channel: their types and msgpack bodies. Every
// body is a msgpack array whose fields come in a fixed order; docs/protocol.md ("Messages")
// gives the grammar. Encoding never blocks; decoding throws DecodeError saying what did not match.

#include <ka/anyvalue.hpp>
#include <ka/metaobject.hpp>
#include <ka/signature.hpp>

#include "wire/channel.hpp"
#include "wire/value_codec.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace ka {
namespace wire {

// Frame::type of each message. A request carries a request id that is unique among the
// sender's requests still waiting; its answer (Reply or Error) carries the same id. Messages
// that expect no answer carry request id 0.
enum class MessageType : std::uint8_t {
  Call = 1,        // request: call a method of an object the receiver exports
  Reply = 2,       // answer: the result value
  Error = 3,       // answer: the failure text
  Connect = 4,     // request: forward a signal of an exported object to the sender
  Disconnect = 5,  // request: stop forwarding a subscription
  Event = 6,       // no answer: one emission of a subscribed signal
  Lookup = 7,      // request: the object of a service, by name
  Release = 8,     // no answer: the sender dropped its handles on an exported object
};

// The object id under which the serving side of a directory exports the directory itself
// ("ServiceDirectory", as the connected participant sees it).
constexpr std::uint32_t kDirectoryObjectId = 1;

// What a participant learns of an object it did not make: enough to build a MetaObject, so
// that overload resolution and typed calls work on a remote handle as on a local one.
struct MethodDescription {
  std::uint32_t uid = 0;
  std::string name;
  Signature parameters;  // a tuple signature, "(is)"
  Signature result;      // "v" for none
};

struct SignalDescription {
  std::uint32_t uid = 0;
  std::string name;
  Signature parameters;  // a tuple signature
};

struct ObjectDescription {
  std::vector<MethodDescription> methods;
  std::vector<SignalDescription> signals;
};

// The description of `meta`; members whose types have no wire form (signature "X") are left
// out, since no peer could call or receive them.
ObjectDescription describe(const MetaObject& meta);
// The MetaObject of a described object, with types from typeFromSignature. Throws DecodeError
// for a signature that names no type.
MetaObject toMetaObject(const ObjectDescription& description);

void packDescription(Packer& pk, const ObjectDescription& description);
ObjectDescription unpackDescription(const msgpack::object& o);

struct CallMessage {
  std::uint32_t object = 0;
  std::uint32_t method = 0;
  std::vector<AnyValue> args;
};

struct ConnectMessage {
  std::uint32_t object = 0;
  std::uint32_t signal = 0;
  std::uint64_t subscription = 0;
};

struct EventMessage {
  std::uint32_t object = 0;
  std::uint32_t signal = 0;
  std::uint64_t subscription = 0;
  std::vector<AnyValue> args;
};

struct ReleaseMessage {
  std::uint32_t object = 0;
  std::uint64_t count = 0;
};

// Argument lists travel as their tuple signature followed by the values; each argument keeps
// its own signature (a dynamic argument its content's), and the receiver converts.
Frame encodeCall(std::uint64_t requestId, std::uint32_t object, std::uint32_t method,
                 const AnyReferenceVector& args, ObjectCodec* objects);
CallMessage decodeCall(const Frame& frame, ObjectCodec* objects);

// `result` keeps its signature; the void value and the empty (invalid) value stay distinct.
Frame encodeReply(std::uint64_t requestId, const AnyReference& result, ObjectCodec* objects);
AnyValue decodeReply(const Frame& frame, ObjectCodec* objects);

Frame encodeError(std::uint64_t requestId, const std::string& text);
std::string decodeError(const Frame& frame);

Frame encodeConnect(std::uint64_t requestId, const ConnectMessage& message);
ConnectMessage decodeConnect(const Frame& frame);

Frame encodeDisconnect(std::uint64_t requestId, std::uint64_t subscription);
std::uint64_t decodeDisconnect(const Frame& frame);

Frame encodeEvent(std::uint32_t object, std::uint32_t signal, std::uint64_t subscription,
                  const AnyReferenceVector& args, ObjectCodec* objects);
EventMessage decodeEvent(const Frame& frame, ObjectCodec* objects);

Frame encodeLookup(std::uint64_t requestId, const std::string& name);
std::string decodeLookup(const Frame& frame);

Frame encodeRelease(const ReleaseMessage& message);
ReleaseMessage decodeRelease(const Frame& frame);

// A handle on an object inside a value: [object id, description].
void packObjectReference(Packer& pk, std::uint32_t id, const ObjectDescription& description);
struct ObjectReference {
  std::uint32_t id = 0;
  ObjectDescription description;
};
ObjectReference unpackObjectReference(const msgpack::object& o);

}  // namespace wire
}  // namespace ka
