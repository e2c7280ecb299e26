#include "Platform/SystemPath.h"

#include <cstdlib>

#include "Platform/NoDestructor.h"

namespace quorvane {
namespace {

std::string readRoot() {
  // secure_getenv: the caller of a set-user-ID program must not choose the files that it opens.
  const char* root = secure_getenv("QUORVANE_ROOT");
  return root != nullptr ? root : "";
}

}  // namespace

std::string systemPath(std::string_view path) {
  static const NoDestructor<std::string> root(readRoot());
  return std::string(*root).append(path);
}

}  // namespace quorvane
