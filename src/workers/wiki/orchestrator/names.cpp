// Names that become paths: branch names and page paths inside the wiki folder.
#include <string>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void refuse(std::string_view branch, std::string_view rule) {
  throw ValueError("invalid branch name \"" + std::string(branch) + "\": " + std::string(rule));
}

bool ends_with(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

}  // namespace

void check_branch_name(std::string_view branch) {
  if (branch.empty()) refuse(branch, "it is empty");
  if (branch == "@") refuse(branch, "it is \"@\"");
  for (char c : branch) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) refuse(branch, "it holds a control character");
    if (c == ' ') refuse(branch, "it holds a space");
    if (std::string_view("~^:?*[\\").find(c) != std::string_view::npos) {
      refuse(branch, std::string("it holds \"") + c + "\"");
    }
  }
  if (branch.find("..") != std::string_view::npos) refuse(branch, "it holds \"..\"");
  if (branch.find("@{") != std::string_view::npos) refuse(branch, "it holds \"@{\"");
  if (branch.front() == '/') refuse(branch, "it begins with \"/\"");
  if (branch.front() == '-') refuse(branch, "it begins with \"-\"");
  if (branch.back() == '/') refuse(branch, "it ends with \"/\"");
  if (branch.back() == '.') refuse(branch, "it ends with \".\"");
  std::string_view rest = branch;
  for (;;) {
    const auto slash = rest.find('/');
    const std::string_view component = rest.substr(0, slash);
    if (component.empty()) refuse(branch, "it has an empty path component");
    if (component.front() == '.') refuse(branch, "a component begins with \".\"");
    if (ends_with(component, ".lock")) refuse(branch, "a component ends with \".lock\"");
    if (slash == std::string_view::npos) break;
    rest.remove_prefix(slash + 1);
  }
}

fs::path path_inside(const fs::path& base, std::string_view relative, std::string_view what) {
  const fs::path rel(relative);
  if (relative.empty() || rel.is_absolute() || rel.has_root_name() || rel.has_root_directory()) {
    throw ValueError(std::string(what) + " \"" + std::string(relative) +
                     "\" is not a relative path");
  }
  for (const auto& part : rel) {
    if (part == "..") {
      throw ValueError(std::string(what) + " \"" + std::string(relative) + "\" would leave " +
                       base.string());
    }
  }
  return (base / rel).lexically_normal();
}

fs::path memory_dir(const fs::path& repo_root) { return repo_root / "memory" / "orvane"; }

fs::path wiki_dir_of(const fs::path& repo_root, const std::string& branch) {
  check_branch_name(branch);
  return memory_dir(repo_root) / fs::path(branch);
}

}  // namespace zenthar_kodrune::workers::wiki
