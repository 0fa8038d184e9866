// FunctionRef: a reference to a callable that outlives the call it is passed to. Two words, never allocates.
#ifndef TKV_PLATFORM_BASE_FUNCTION_REF_H
#define TKV_PLATFORM_BASE_FUNCTION_REF_H

#include <memory>
#include <type_traits>
#include <utility>

namespace tkv {

template <typename Signature>
class FunctionRef;

template <typename Result, typename... Arguments>
class FunctionRef<Result(Arguments...)> {
 public:
  template <typename Callable>
  requires(!std::is_same_v<std::remove_cvref_t<Callable>, FunctionRef> &&
           std::is_invocable_r_v<Result, Callable&, Arguments...>)
      FunctionRef(Callable&& callable)  // NOLINT(*-explicit-constructor,*-forwarding-reference-overload): constrained
      : target_(const_cast<void*>(static_cast<const void*>(std::addressof(callable)))),
        invoke_([](void* target, Arguments... arguments) -> Result {
          return (*static_cast<std::remove_reference_t<Callable>*>(target))(std::forward<Arguments>(arguments)...);
        }) {}

  Result operator()(Arguments... arguments) const { return invoke_(target_, std::forward<Arguments>(arguments)...); }

 private:
  void* target_;
  Result (*invoke_)(void*, Arguments...);
};

}  // namespace tkv

#endif
