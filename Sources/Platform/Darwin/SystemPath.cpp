#include "Platform/SystemPath.h"

namespace quorvane {

std::string systemPath(std::string_view path) {
  return std::string(path);
}

}  // namespace quorvane
