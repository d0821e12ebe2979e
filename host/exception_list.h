// Declared exception lists: an operation that may let only some exception
// types escape runs its body through koOnlyLet<Allowed...>. An exception of a
// listed type (or derived from one) passes unchanged; any other ends the
// process through std::terminate, as a violated exception declaration does.
#ifndef KORVEL_HOST_EXCEPTION_LIST_H_
#define KORVEL_HOST_EXCEPTION_LIST_H_

#include <exception>
#include <utility>

namespace korvel_detail {

// run() rethrows the exception being handled if it is one of Listed, else
// terminates. REQUIRES: called inside a catch handler.
template <class... Listed>
struct Rethrow {
  [[noreturn]] static void run() { std::terminate(); }
};

template <class First, class... Rest>
struct Rethrow<First, Rest...> {
  [[noreturn]] static void run() {
    try {
      throw;
    } catch (const First&) {
      throw;
    } catch (...) {
      Rethrow<Rest...>::run();
    }
  }
};

}  // namespace korvel_detail

template <class... Allowed, class Body>
decltype(auto) koOnlyLet(Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    korvel_detail::Rethrow<Allowed...>::run();
  }
}

#endif  // KORVEL_HOST_EXCEPTION_LIST_H_
