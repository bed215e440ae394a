// A fresh temporary folder for one test, removed with everything in it when
// the test ends.
#pragma once

#include <filesystem>

namespace kodrune_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace kodrune_test
