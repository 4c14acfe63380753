// The service front's state that exists from the moment the library is loaded: its copy of the
// service's domain and its log category. The front class itself joins this file.

#include <ka/log.hpp>

#include <string>

namespace QV {
namespace {

[[maybe_unused]] const std::string defaultDomain = "com.quorvelin.userinfo";
[[maybe_unused]] const ka::log::CategoryPtr logCategory = ka::log::addCategory("QVUserInfo");

}  // namespace
}  // namespace QV
