// A test's own system root in the temporary folder. The destructor removes it with its contents.
// REQUIRES: constructed before the first systemPath() of the process, which reads the root once.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace quorvane {

class TemporaryRoot {
 public:
  TemporaryRoot() {
    if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("no folder " + folder);
    std::filesystem::permissions(folder, std::filesystem::perms{0755});  // for other users
    setenv("QUORVANE_ROOT", folder.c_str(), 1);
  }
  ~TemporaryRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  TemporaryRoot(const TemporaryRoot&) = delete;
  TemporaryRoot& operator=(const TemporaryRoot&) = delete;

  /// Maps a platform path such as "/run/quorvane" into this root.
  [[nodiscard]] std::string path(const std::string& platformPath) const {
    return folder + platformPath;
  }
  /// Maps the path and creates its folder.
  [[nodiscard]] std::string prepare(const std::string& platformPath) const {
    std::filesystem::create_directories(std::filesystem::path(path(platformPath)).parent_path());
    return path(platformPath);
  }
  void write(const std::string& platformPath, const std::string& contents) const {
    std::ofstream(prepare(platformPath), std::ios::binary) << contents;
  }
  /// Returns the contents, or the empty string if there is no such file.
  [[nodiscard]] std::string read(const std::string& platformPath) const {
    std::ifstream file(path(platformPath), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::string folder = std::filesystem::temp_directory_path() / "quorvane.XXXXXX";
};

}  // namespace quorvane
