#include <ka/anyfunction.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/bind/bind.hpp>

#include <memory>
#include <string>
#include <vector>

namespace {

int addOne(int x) {
  return x + 1;
}

struct Greeter {
  std::string prefix = "hello ";
  std::string greet(const std::string& name) const { return prefix + name; }
  void remember(int v) { last = v; }
  int last = 0;
};

TEST(AnyFunctionSignature, IsDeducedFromEveryKindOfCallable) {
  const auto free = ka::AnyFunction::from(&addOne);
  EXPECT_EQ(free.parametersSignature().toString(), "(i)");
  EXPECT_EQ(free.resultSignature().toString(), "i");

  const auto lambda =
      ka::AnyFunction::from([](const std::string&, std::int64_t, const ka::AnyValue&) {});
  EXPECT_EQ(lambda.parametersSignature().toString(), "(slm)");
  EXPECT_EQ(lambda.resultSignature().toString(), "v");

  boost::function<bool(std::vector<int>)> bf = [](std::vector<int> v) { return v.empty(); };
  const auto boosted = ka::AnyFunction::from(bf);
  EXPECT_EQ(boosted.parametersSignature().toString(), "([i])");
  EXPECT_EQ(boosted.resultSignature().toString(), "b");
}

TEST(AnyFunctionCall, CallsAMemberBoundWithBoostBind) {
  auto g = std::make_shared<Greeter>();
  using namespace boost::placeholders;
  const auto f =
      ka::AnyFunction::from<std::string(const std::string&)>(boost::bind(&Greeter::greet, g, _1));
  EXPECT_EQ(f(std::string("ann")).toString(), "hello ann");
  const auto m = ka::AnyFunction::fromMember(&Greeter::remember, g);
  m(7);
  EXPECT_EQ(g->last, 7);
}

TEST(AnyFunctionCall, PassesMatchingArgumentsWithoutCopying) {
  const std::string* seen = nullptr;
  const auto f = ka::AnyFunction::from([&seen](const std::string& s) { seen = &s; });
  const std::string arg = "no copy";
  f.call({ka::AnyReference::from(arg)});
  EXPECT_EQ(seen, &arg);
}

TEST(AnyFunctionError, NamesTheArgumentPositionAndBothTypes) {
  const auto f = ka::AnyFunction::from([](const std::string&, int) {});
  using testing::HasSubstr;
  EXPECT_THAT([&] { f(std::string("a"), std::string("b")); },
              testing::ThrowsMessage<ka::ArgumentError>(
                  testing::AllOf(HasSubstr("argument 2"), HasSubstr("'s'"), HasSubstr("'i'"))));
  EXPECT_THROW(f(std::string("a"), std::int64_t{1} << 40), ka::ArgumentError);
}

}  // namespace
