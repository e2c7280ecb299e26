#include "Platform/SystemPath.h"

#include <cstdlib>

namespace quorvane {
namespace {

std::string* readRoot() {
  // secure_getenv: a set-user-ID program of ours would not let its caller choose the files it
  // opens.
  const char* root = secure_getenv("QUORVANE_ROOT");
  return new std::string(root != nullptr ? root : "");
}

}  // namespace

std::string systemPath(std::string_view path) {
  // Never freed: threads may still ask for a path while the process exits.
  static const std::string& root = *readRoot();
  return std::string(root).append(path);
}

}  // namespace quorvane
