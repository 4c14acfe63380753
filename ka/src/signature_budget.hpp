#pragma once
// What one peer may add to the process-wide table of run-time types. The table never forgets a
// type (values anywhere may still point to it), so without a bound per peer one connection
// sending ever new container signatures would fill it, and from then on every peer's call with
// a new one would be refused until a restart.

#include <atomic>
#include <cstddef>

namespace ka {
namespace detail {

struct SignatureBudget {
  explicit SignatureBudget(std::size_t limit) : limit(limit) {}
  const std::size_t limit;
  std::atomic<std::size_t> used{0};  // types interned on its account so far
};

// While alive, the run-time types this thread adds to the table count against `budget`, and a
// type past its limit is refused (typeFromSignature throws). Scopes nest; the innermost counts.
class SignatureBudgetScope {
 public:
  explicit SignatureBudgetScope(SignatureBudget& budget);
  ~SignatureBudgetScope();
  SignatureBudgetScope(const SignatureBudgetScope&) = delete;
  SignatureBudgetScope& operator=(const SignatureBudgetScope&) = delete;

 private:
  SignatureBudget* previous_;
};

}  // namespace detail
}  // namespace ka
