#pragma once
// A move-only type-erased callable: lets futures and the event loop hold callbacks that capture
// move-only state (promises in flight, unique_ptr), which std::function cannot.

#include <memory>
#include <type_traits>
#include <utility>

namespace ka {
namespace detail {

template <class Signature>
class UniqueFunction;

template <class R, class... Args>
class UniqueFunction<R(Args...)> {
 public:
  UniqueFunction() = default;

  template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, UniqueFunction>>>
  UniqueFunction(F&& f)  // NOLINT(google-explicit-constructor): converts like std::function
      : callable_(std::make_unique<Holder<std::decay_t<F>>>(std::forward<F>(f))) {}

  UniqueFunction(UniqueFunction&&) noexcept = default;
  UniqueFunction& operator=(UniqueFunction&&) noexcept = default;

  explicit operator bool() const noexcept { return callable_ != nullptr; }

  // Precondition: not empty.
  R operator()(Args... args) { return callable_->call(std::forward<Args>(args)...); }

 private:
  struct Callable {
    virtual ~Callable() = default;
    virtual R call(Args... args) = 0;
  };

  template <class F>
  struct Holder final : Callable {
    template <class G>
    explicit Holder(G&& g) : f(std::forward<G>(g)) {}
    R call(Args... args) override { return f(std::forward<Args>(args)...); }
    F f;
  };

  std::unique_ptr<Callable> callable_;
};

}  // namespace detail
}  // namespace ka
