#include "wire/messages.hpp"

#include <ka/signaturetype.hpp>

#include <limits>

namespace ka {
namespace wire {
namespace {

// Message bodies wrap values in arrays of their own: the body, an argument list, and inside an
// object handle its description (reference, description, member list, member). The deepest
// value a writer sends must still parse.
DecodeLimits bodyLimits() {
  DecodeLimits limits;
  limits.maxDepth += 2 + 4;
  return limits;
}

// The parsed body of one frame: an array of fields, with the msgpack zone that the fields (and
// values decoded lazily from them) point into. Parsed under the limits of values, so that a
// claimed size is checked against the bytes present before anything is reserved for it; the
// values' own nesting is checked again as each is read.
class Body {
 public:
  Body(const Frame& frame, const char* what, std::size_t fields) : _what(what) {
    try {
      _handle = parseLimited(frame.body.data(), frame.body.size(), bodyLimits());
    } catch (const DecodeError& e) {
      throw DecodeError(std::string(what) + ": malformed body: " + e.what());
    }
    const msgpack::object& o = _handle.get();
    // Later versions may append fields: those past the ones known here are ignored.
    if (o.type != msgpack::type::ARRAY || o.via.array.size < fields) {
      throw DecodeError(std::string(what) + ": the body must be an array of at least " +
                        std::to_string(fields) + " fields");
    }
  }

  const msgpack::object& operator[](std::size_t i) const { return _handle.get().via.array.ptr[i]; }

  std::uint64_t unsignedAt(std::size_t i, const char* field,
                           std::uint64_t max = std::numeric_limits<std::uint64_t>::max()) const {
    const msgpack::object& o = (*this)[i];
    if (o.type != msgpack::type::POSITIVE_INTEGER || o.via.u64 > max) {
      throw DecodeError(std::string(_what) + ": " + field + " must be an unsigned integer" +
                        (max < std::numeric_limits<std::uint64_t>::max()
                             ? " up to " + std::to_string(max)
                             : std::string()));
    }
    return o.via.u64;
  }
  std::uint32_t idAt(std::size_t i, const char* field) const {
    return static_cast<std::uint32_t>(unsignedAt(i, field, 0xffffffffu));
  }
  std::string stringAt(std::size_t i, const char* field) const { return text((*this)[i], field); }

  std::string text(const msgpack::object& o, const char* field) const {
    if (o.type != msgpack::type::STR) {
      throw DecodeError(std::string(_what) + ": " + field + " must be a string");
    }
    return std::string(o.via.str.ptr, o.via.str.size);
  }

  const char* what() const { return _what; }

 private:
  const char* _what;
  msgpack::object_handle _handle;
};

Frame makeFrame(MessageType type, std::uint64_t requestId, const msgpack::sbuffer& buffer) {
  Frame frame;
  frame.type = static_cast<std::uint8_t>(type);
  frame.requestId = requestId;
  frame.body.assign(buffer.data(), buffer.data() + buffer.size());
  return frame;
}

const TypeInterface& typeFor(const Signature& signature, const char* what) {
  try {
    return *typeFromSignature(signature);
  } catch (const std::exception& e) {
    throw DecodeError(std::string(what) + ": bad signature \"" + signature.toString() +
                      "\": " + e.what());
  }
}

// The wire form of one value, by its own signature. The void value and the empty value have no
// content: both are nil, told apart by their signatures "v" and "".
void packTyped(Packer& pk, const AnyReference& value, ObjectCodec* objects) {
  if (!value.isValid() || value.kind() == TypeKind::Void) {
    pk.pack_nil();
    return;
  }
  packValue(pk, value, objects);
}

AnyValue unpackTyped(const msgpack::object& o, const Signature& signature, ObjectCodec* objects,
                     const char* what) {
  if (signature.empty()) {
    if (o.type != msgpack::type::NIL) {
      throw DecodeError(std::string(what) + ": the empty value must be nil");
    }
    return AnyValue();
  }
  if (signature.toString() == "v") {
    if (o.type != msgpack::type::NIL) {
      throw DecodeError(std::string(what) + ": the void value must be nil");
    }
    return AnyValue::makeVoid();
  }
  return unpackValue(o, typeFor(signature, what), objects);
}

Signature argumentsSignature(const AnyReferenceVector& args) {
  std::string text = "(";
  for (const auto& a : args) {
    if (!a.isValid()) {
      throw std::runtime_error("An argument has no type and cannot be sent");
    }
    text += a.signature().toString();
  }
  return Signature(text + ")");
}

// [signature, [values...]]: packs two fields of the enclosing array.
void packArguments(Packer& pk, const AnyReferenceVector& args, ObjectCodec* objects) {
  pk.pack(argumentsSignature(args).toString());
  pk.pack_array(static_cast<std::uint32_t>(args.size()));
  for (const auto& a : args) {
    packTyped(pk, a, objects);
  }
}

std::vector<AnyValue> unpackArguments(const Body& body, std::size_t at, ObjectCodec* objects) {
  const Signature signature(body.stringAt(at, "argument signature"));
  const std::string& text = signature.toString();
  if (!signature.isValid() || text.empty() || text.front() != '(') {
    throw DecodeError(std::string(body.what()) + ": the argument signature \"" + text +
                      "\" is not a tuple signature");
  }
  const std::vector<Signature> members = signature.children();
  const msgpack::object& values = body[at + 1];
  if (values.type != msgpack::type::ARRAY || values.via.array.size != members.size()) {
    throw DecodeError(std::string(body.what()) + ": the arguments must be an array of " +
                      std::to_string(members.size()) + " values, as \"" + text + "\" says");
  }
  std::vector<AnyValue> out;
  out.reserve(members.size());
  for (std::size_t i = 0; i < members.size(); ++i) {
    out.push_back(unpackTyped(values.via.array.ptr[i], members[i], objects, body.what()));
  }
  return out;
}

bool hasWireForm(const Signature& signature) {
  return signature.toString().find('X') == std::string::npos;
}

std::vector<const TypeInterface*> memberTypes(const Signature& tuple, const char* what) {
  const std::string& text = tuple.toString();
  if (!tuple.isValid() || text.empty() || text.front() != '(') {
    throw DecodeError(std::string(what) + ": \"" + text + "\" is not a tuple signature");
  }
  std::vector<const TypeInterface*> types;
  for (const Signature& member : tuple.children()) {
    types.push_back(&typeFor(member, what));
  }
  return types;
}

}  // namespace

ObjectDescription describe(const MetaObject& meta) {
  ObjectDescription d;
  for (const MetaMethod& m : meta.methods()) {
    MethodDescription md{m.uid, m.name, m.parametersSignature(), m.returnSignature()};
    if (md.result.empty()) {
      md.result = Signature("v");
    }
    if (hasWireForm(md.parameters) && hasWireForm(md.result)) {
      d.methods.push_back(std::move(md));
    }
  }
  for (const MetaSignal& s : meta.signals()) {
    SignalDescription sd{s.uid, s.name, s.signature()};
    if (hasWireForm(sd.parameters)) {
      d.signals.push_back(std::move(sd));
    }
  }
  return d;
}

MetaObject toMetaObject(const ObjectDescription& description) {
  std::vector<MetaMethod> methods;
  for (const auto& m : description.methods) {
    MetaMethod meta;
    meta.uid = m.uid;
    meta.name = m.name;
    meta.parameterTypes = memberTypes(m.parameters, "method description");
    meta.returnType = &typeFor(m.result, "method description");
    methods.push_back(std::move(meta));
  }
  std::vector<MetaSignal> signals;
  for (const auto& s : description.signals) {
    MetaSignal meta;
    meta.uid = s.uid;
    meta.name = s.name;
    meta.argumentTypes = memberTypes(s.parameters, "signal description");
    signals.push_back(std::move(meta));
  }
  return MetaObject(std::move(methods), std::move(signals));
}

void packDescription(Packer& pk, const ObjectDescription& description) {
  pk.pack_array(2);
  pk.pack_array(static_cast<std::uint32_t>(description.methods.size()));
  for (const auto& m : description.methods) {
    pk.pack_array(4);
    pk.pack(m.uid);
    pk.pack(m.name);
    pk.pack(m.parameters.toString());
    pk.pack(m.result.toString());
  }
  pk.pack_array(static_cast<std::uint32_t>(description.signals.size()));
  for (const auto& s : description.signals) {
    pk.pack_array(3);
    pk.pack(s.uid);
    pk.pack(s.name);
    pk.pack(s.parameters.toString());
  }
}

namespace {

const msgpack::object* arrayOf(const msgpack::object& o, std::size_t size) {
  if (o.type != msgpack::type::ARRAY || (size != 0 && o.via.array.size != size)) {
    return nullptr;
  }
  return o.via.array.ptr;
}

std::uint32_t uidOf(const msgpack::object& o) {
  if (o.type != msgpack::type::POSITIVE_INTEGER || o.via.u64 > 0xffffffffu) {
    throw DecodeError("object description: a member id must be an unsigned 32-bit integer");
  }
  return static_cast<std::uint32_t>(o.via.u64);
}

std::string textOf(const msgpack::object& o) {
  if (o.type != msgpack::type::STR) {
    throw DecodeError("object description: names and signatures must be strings");
  }
  return std::string(o.via.str.ptr, o.via.str.size);
}

}  // namespace

ObjectDescription unpackDescription(const msgpack::object& o) {
  const msgpack::object* parts = arrayOf(o, 2);
  if (parts == nullptr || parts[0].type != msgpack::type::ARRAY ||
      parts[1].type != msgpack::type::ARRAY) {
    throw DecodeError("object description: must be [methods, signals]");
  }
  ObjectDescription d;
  for (std::uint32_t i = 0; i < parts[0].via.array.size; ++i) {
    const msgpack::object* m = arrayOf(parts[0].via.array.ptr[i], 4);
    if (m == nullptr) {
      throw DecodeError("object description: a method must be [uid, name, parameters, result]");
    }
    d.methods.push_back(
        {uidOf(m[0]), textOf(m[1]), Signature(textOf(m[2])), Signature(textOf(m[3]))});
  }
  for (std::uint32_t i = 0; i < parts[1].via.array.size; ++i) {
    const msgpack::object* s = arrayOf(parts[1].via.array.ptr[i], 3);
    if (s == nullptr) {
      throw DecodeError("object description: a signal must be [uid, name, parameters]");
    }
    d.signals.push_back({uidOf(s[0]), textOf(s[1]), Signature(textOf(s[2]))});
  }
  return d;
}

void packObjectReference(Packer& pk, std::uint32_t id, const ObjectDescription& description) {
  pk.pack_array(2);
  pk.pack(id);
  packDescription(pk, description);
}

ObjectReference unpackObjectReference(const msgpack::object& o) {
  const msgpack::object* parts = arrayOf(o, 2);
  if (parts == nullptr || parts[0].type != msgpack::type::POSITIVE_INTEGER ||
      parts[0].via.u64 == 0 || parts[0].via.u64 > 0xffffffffu) {
    throw DecodeError("object reference: must be [object id (1 or more), description]");
  }
  return ObjectReference{static_cast<std::uint32_t>(parts[0].via.u64), unpackDescription(parts[1])};
}

Frame encodeCall(std::uint64_t requestId, std::uint32_t object, std::uint32_t method,
                 const AnyReferenceVector& args, ObjectCodec* objects) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(4);
  pk.pack(object);
  pk.pack(method);
  packArguments(pk, args, objects);
  return makeFrame(MessageType::Call, requestId, buffer);
}

CallMessage decodeCall(const Frame& frame, ObjectCodec* objects) {
  const Body body(frame, "call", 4);
  CallMessage m;
  m.object = body.idAt(0, "object id");
  m.method = body.idAt(1, "method id");
  m.args = unpackArguments(body, 2, objects);
  return m;
}

Frame encodeReply(std::uint64_t requestId, const AnyReference& result, ObjectCodec* objects) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(2);
  pk.pack(result.signature().toString());
  packTyped(pk, result, objects);
  return makeFrame(MessageType::Reply, requestId, buffer);
}

AnyValue decodeReply(const Frame& frame, ObjectCodec* objects) {
  const Body body(frame, "reply", 2);
  return unpackTyped(body[1], Signature(body.stringAt(0, "result signature")), objects, "reply");
}

Frame encodeError(std::uint64_t requestId, const std::string& text) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(1);
  pk.pack(text);
  return makeFrame(MessageType::Error, requestId, buffer);
}

std::string decodeError(const Frame& frame) {
  const Body body(frame, "error", 1);
  return body.stringAt(0, "error text");
}

Frame encodeConnect(std::uint64_t requestId, const ConnectMessage& message) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(3);
  pk.pack(message.object);
  pk.pack(message.signal);
  pk.pack(message.subscription);
  return makeFrame(MessageType::Connect, requestId, buffer);
}

ConnectMessage decodeConnect(const Frame& frame) {
  const Body body(frame, "connect", 3);
  return ConnectMessage{body.idAt(0, "object id"), body.idAt(1, "signal id"),
                        body.unsignedAt(2, "subscription id")};
}

Frame encodeDisconnect(std::uint64_t requestId, std::uint64_t subscription) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(1);
  pk.pack(subscription);
  return makeFrame(MessageType::Disconnect, requestId, buffer);
}

std::uint64_t decodeDisconnect(const Frame& frame) {
  const Body body(frame, "disconnect", 1);
  return body.unsignedAt(0, "subscription id");
}

Frame encodeEvent(std::uint32_t object, std::uint32_t signal, std::uint64_t subscription,
                  const AnyReferenceVector& args, ObjectCodec* objects) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(5);
  pk.pack(object);
  pk.pack(signal);
  pk.pack(subscription);
  packArguments(pk, args, objects);
  return makeFrame(MessageType::Event, 0, buffer);
}

EventMessage decodeEvent(const Frame& frame, ObjectCodec* objects) {
  const Body body(frame, "event", 5);
  EventMessage m;
  m.object = body.idAt(0, "object id");
  m.signal = body.idAt(1, "signal id");
  m.subscription = body.unsignedAt(2, "subscription id");
  m.args = unpackArguments(body, 3, objects);
  return m;
}

Frame encodeLookup(std::uint64_t requestId, const std::string& name) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(1);
  pk.pack(name);
  return makeFrame(MessageType::Lookup, requestId, buffer);
}

std::string decodeLookup(const Frame& frame) {
  const Body body(frame, "lookup", 1);
  return body.stringAt(0, "service name");
}

Frame encodeRelease(const ReleaseMessage& message) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(2);
  pk.pack(message.object);
  pk.pack(message.count);
  return makeFrame(MessageType::Release, 0, buffer);
}

ReleaseMessage decodeRelease(const Frame& frame) {
  const Body body(frame, "release", 2);
  return ReleaseMessage{body.idAt(0, "object id"), body.unsignedAt(1, "count")};
}

}  // namespace wire
}  // namespace ka
