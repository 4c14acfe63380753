// Where the shared secret comes from: file, command line or environment, and which files are
// refused.

#include <appcommon/token.hpp>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

struct Case {
  const char* name;
  const char* option;       // --token, "" when absent
  const char* fileContent;  // nullptr: no --token-file; else written to a file of fileMode
  mode_t fileMode;
  const char* environment;  // QV_TOKEN, nullptr when unset
  const char* token;        // expected, or nullptr when refused
  const char* errorPart;    // in the refusal, or in the warning when accepted ("" for none)
};

const Case kCases[] = {
    {"NothingGivenMeansNoToken", "", nullptr, 0, nullptr, "", ""},
    {"TheEnvironmentIsUsedWhenNothingElseIsGiven", "", nullptr, 0, "env-secret", "env-secret", ""},
    {"TheCommandLineWinsOverTheEnvironmentWithAWarning", "cli", nullptr, 0, "env", "cli",
     "process listing"},
    {"AFileIsReadWithoutItsTrailingNewline", "", "s3cret\n", 0600, "env", "s3cret", ""},
    {"AFileWithACarriageReturnEndingIsReadToo", "", "s3cret\r\n", 0400, nullptr, "s3cret", ""},
    {"InnerNewlinesOfAFileAreKept", "", "a\nb", 0600, nullptr, "a\nb", ""},
    {"AFileTheGroupMayReadIsRefused", "", "s3cret", 0640, nullptr, nullptr, "chmod 600"},
    {"AFileOthersMayReadIsRefused", "", "s3cret", 0604, nullptr, nullptr, "chmod 600"},
    {"AnEmptyFileIsRefused", "", "\n", 0600, nullptr, nullptr, "empty"},
    {"BothTheOptionAndTheFileAreRefused", "cli", "s3cret", 0600, nullptr, nullptr,
     "give one of them"},
};

void PrintTo(const Case& c, std::ostream* os) {
  *os << c.name;
}

class TokenSources : public testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qv-token-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    const char* saved = std::getenv(qvapp::kTokenVariable);
    saved_ = saved ? saved : "";
    hadVariable_ = saved != nullptr;
  }
  void TearDown() override {
    std::filesystem::remove_all(dir_);
    if (hadVariable_) {
      ::setenv(qvapp::kTokenVariable, saved_.c_str(), 1);
    } else {
      ::unsetenv(qvapp::kTokenVariable);
    }
  }
  std::string dir_;
  std::string saved_;
  bool hadVariable_ = false;
};

TEST_P(TokenSources, GiveTheTokenOrRefuseItWithAReason) {
  const Case& c = GetParam();
  qvapp::TokenSource source;
  source.token = c.option;
  if (c.fileContent != nullptr) {
    source.file = dir_ + "/token";
    std::ofstream(source.file) << c.fileContent;
    ASSERT_EQ(::chmod(source.file.c_str(), c.fileMode), 0);
  }
  if (c.environment != nullptr) {
    ::setenv(qvapp::kTokenVariable, c.environment, 1);
  } else {
    ::unsetenv(qvapp::kTokenVariable);
  }
  if (c.token == nullptr) {
    try {
      qvapp::resolveToken(source);
      FAIL() << "accepted";
    } catch (const qvapp::TokenError& e) {
      EXPECT_NE(std::string(e.what()).find(c.errorPart), std::string::npos) << e.what();
    }
    return;
  }
  EXPECT_EQ(qvapp::resolveToken(source), c.token);
  EXPECT_EQ(source.warning.empty(), std::string(c.errorPart).empty()) << source.warning;
  EXPECT_NE(source.warning.find(c.errorPart), std::string::npos) << source.warning;
}

INSTANTIATE_TEST_SUITE_P(Cases, TokenSources, testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TokenFile, ThatDoesNotExistIsRefusedWithItsPath) {
  qvapp::TokenSource source;
  source.file = "/nonexistent/qv-token";
  try {
    qvapp::resolveToken(source);
    FAIL() << "accepted";
  } catch (const qvapp::TokenError& e) {
    EXPECT_NE(std::string(e.what()).find("/nonexistent/qv-token"), std::string::npos);
  }
}

}  // namespace
