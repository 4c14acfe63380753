#include "qverror/qverror.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

QV::QVError serviceMissing() {
  return QV::QVError("QVUserInfo", "QVUserInfo", "Can't find service \"ServiceDirectory\"",
                     "src/qvuserinfo", 43);
}

}  // namespace

TEST(QVErrorFields, KeepsEveryValueItWasBuiltWith) {
  const QV::QVError e = serviceMissing();
  EXPECT_EQ(e.module(), "QVUserInfo");
  EXPECT_EQ(e.method(), "QVUserInfo");
  EXPECT_EQ(e.description(), "Can't find service \"ServiceDirectory\"");
  EXPECT_EQ(e.file(), "src/qvuserinfo");
  EXPECT_EQ(e.line(), 43u);
}

TEST(QVErrorWhat, NamesModuleMethodDescriptionAndPosition) {
  EXPECT_STREQ(serviceMissing().what(),
               "QVUserInfo::QVUserInfo(): Can't find service \"ServiceDirectory\" "
               "(src/qvuserinfo:43)");
}

TEST(QVErrorWhat, LeavesOutThePositionWhenTheFileIsUnknown) {
  const QV::QVError e("QVUserInfo", "getUser", "User 7 does not exist", "", 12);
  EXPECT_STREQ(e.what(), "QVUserInfo::getUser(): User 7 does not exist");
}

TEST(QVErrorCopy, KeepsItsOwnTextAfterTheOriginalIsGone) {
  auto original = std::make_unique<QV::QVError>(serviceMissing());
  const std::string expected = original->what();
  QV::QVError copy(*original);
  QV::QVError assigned("Other", "method", "other", "", 0);
  assigned = *original;
  original.reset();
  EXPECT_EQ(copy.what(), expected);
  EXPECT_EQ(assigned.what(), expected);
  EXPECT_EQ(assigned.line(), 43u);
}

TEST(QVErrorCatching, IsCaughtAsStdExceptionWithTheSameText) {
  try {
    throw serviceMissing();
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), serviceMissing().what());
    EXPECT_NE(dynamic_cast<const QV::QVError*>(&e), nullptr);
    return;
  }
  FAIL() << "QVError was not caught as std::exception";
}
