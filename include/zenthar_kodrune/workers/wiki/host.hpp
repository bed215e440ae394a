// What the wiki orchestrator (the host) provides to the mixins mixed into it.
// The mixins have no state of their own: the branch, the stored rows, the
// store and the file hashing all belong to the host.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki {

class WikiStore;

class WikiHost {
 public:
  virtual ~WikiHost() = default;

  // The branch whose wiki is being built; every row written belongs to it.
  virtual const std::string& branch() const = 0;
  // The host's pages directory.
  virtual const std::filesystem::path& pages_dir() const = 0;
  // The branch's stored rows as the host loaded them.
  virtual const Existing& _existing() const = 0;
  // The wiki store.
  virtual WikiStore& repository() = 0;
  // Current content hashes of `paths` (repository-relative, normal form), in
  // the order asked; paths that are not files are left out.
  virtual Json _source_hashes(const std::vector<std::string>& paths) = 0;
};

}  // namespace zenthar_kodrune::workers::wiki
