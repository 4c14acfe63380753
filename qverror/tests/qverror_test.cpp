#include "qverror/qverror.hpp"

#include <gtest/gtest.h>

#include <memory>

namespace {

QV::QVError serviceMissing() {
  return QV::QVError("QVUserInfo", "QVUserInfo", "Can't find service \"ServiceDirectory\"",
                     "src/qvuserinfo", 43);
}

TEST(QVErrorWhat, NamesModuleMethodDescriptionAndThePositionOnlyWhenTheFileIsKnown) {
  EXPECT_STREQ(serviceMissing().what(),
               "QVUserInfo::QVUserInfo(): Can't find service \"ServiceDirectory\" "
               "(src/qvuserinfo:43)");
  EXPECT_STREQ(QV::QVError("QVUserInfo", "getUser", "User 7 does not exist", "", 12).what(),
               "QVUserInfo::getUser(): User 7 does not exist");
}

TEST(QVErrorCopy, KeepsItsOwnTextAfterTheOriginalIsGone) {
  auto original = std::make_unique<QV::QVError>(serviceMissing());
  QV::QVError copy(*original), assigned("Other", "method", "other", "", 0);
  assigned = *original;
  original.reset();
  EXPECT_STREQ(copy.what(), serviceMissing().what());
  EXPECT_STREQ(assigned.what(), serviceMissing().what());
}

// The library hides its symbols: the exception must still match its type outside it.
TEST(QVErrorCatching, IsCaughtAsItsOwnTypeAndAsStdException) {
  EXPECT_THROW(throw serviceMissing(), QV::QVError);
  EXPECT_THROW(throw serviceMissing(), std::exception);
}

}  // namespace
