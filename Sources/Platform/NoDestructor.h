// An object without a destructor, for statics: exit() destroys statics while other threads still
// use them. Callable from any thread.
#pragma once

#include <utility>

namespace quorvane {

/// Owns the object until the process ends.
template <class Object>
class NoDestructor {
 public:
  template <class... Arguments>
  explicit NoDestructor(Arguments&&... arguments)
      : object(*new Object(std::forward<Arguments>(arguments)...)) {}

  Object& operator*() const { return object; }
  Object* operator->() const { return &object; }

 private:
  Object& object;
};

}  // namespace quorvane
