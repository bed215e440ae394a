// Names that become paths: branch names and page paths inside the wiki folder.
#include <string>

#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void refuse(std::string_view branch, std::string_view rule) {
  throw ValueError("invalid branch name " + util::quote_input(branch) + ": " + std::string(rule));
}

bool starts_with(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool ends_with(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

}  // namespace

void check_branch_name(std::string_view branch) {
  if (branch.empty()) refuse(branch, "it is empty");
  if (branch.size() > MAX_BRANCH_BYTES) {
    // Named by its length alone: a name this long would bury the message.
    throw ValueError("invalid branch name of " + std::to_string(branch.size()) +
                     " bytes: a branch name may hold at most " + std::to_string(MAX_BRANCH_BYTES));
  }
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
  for (bool first = true;; first = false) {
    const auto slash = rest.find('/');
    const std::string_view component = rest.substr(0, slash);
    if (component.empty()) refuse(branch, "it has an empty path component");
    if (component.front() == '.') refuse(branch, "a component begins with \".\"");
    if (ends_with(component, ".lock")) refuse(branch, "a component ends with \".lock\"");
    if (component.size() > MAX_NAME_BYTES) {
      refuse(branch, "a component is longer than " + std::to_string(MAX_NAME_BYTES) + " bytes");
    }
    // The branch's folder must not overlap the files beside it: the steering
    // file and an older store in memory/orvane, and, one level down, another
    // branch's pages folder or plan log ("main/pages" inside "main").
    if (first && (component == "steering.md" || starts_with(component, "wiki.db"))) {
      refuse(branch, "its folder would overlap memory/orvane/" + std::string(component));
    }
    if (!first && (component == "pages" || starts_with(component, _PLAN_LOG_NAME))) {
      refuse(branch, "its folder would overlap another branch's " + std::string(component));
    }
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

void check_page_id_length(std::string_view page_id) {
  if (page_id.size() > MAX_PAGE_ID_BYTES) {
    throw ValueError("page id \"" + std::string(page_id.substr(0, 60)) + "...\" is " +
                     std::to_string(page_id.size()) + " bytes long; a page's file name holds " +
                     "an id of at most " + std::to_string(MAX_PAGE_ID_BYTES) + " bytes");
  }
}

fs::path memory_dir(const fs::path& checkout_root) { return checkout_root / "memory" / "orvane"; }

fs::path wiki_dir_of(const fs::path& checkout_root, const std::string& branch) {
  check_branch_name(branch);
  return memory_dir(checkout_root) / fs::path(branch);
}

}  // namespace zenthar_kodrune::workers::wiki
