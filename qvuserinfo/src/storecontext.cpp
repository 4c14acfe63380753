#include "storecontext.hpp"

#include <boost/lexical_cast.hpp>

namespace QV::userdata {

const std::string defaultDomain = "com.quorvelin.userinfo";
const ka::log::CategoryPtr logCategory = ka::log::addCategory("QVUserInfoPrivate");

std::string signatureOf(const ka::AnyReference& value) {
  return value.signature(true).toString();
}

std::int64_t readInt64(const ka::AnyReference& value) {
  if (value.kind() == ka::TypeKind::Int) {
    return value.toInt64();
  }
  return value.to<std::int64_t>();
}

std::string subjectOf(int userId) {
  return boost::lexical_cast<std::string>(userId);
}

}  // namespace QV::userdata
