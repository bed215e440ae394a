#include "support/temp_dir.hpp"

#include <stdlib.h>

#include <stdexcept>
#include <string>
#include <system_error>

namespace kodrune_test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kodrune-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed: " + pattern);
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace kodrune_test
