// Saving a written page: the body goes to a synced file of its own, the row
// commits, then the file takes the body's name. A save a killed process left
// is finished or removed by the next command under the branch's lock.
#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <utf8.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/orchestrator/citation_states.hpp"
#include "workers/wiki/orchestrator/generator_internals.hpp"
#include "workers/wiki/orchestrator/mirrored_store.hpp"
#include "workers/wiki/util/fault_point.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

// The body a save was writing when it stopped: "<file>.saving-XXXXXX" (or
// "<file>.saving", as older versions named it), and the file it was for.
std::optional<std::string> saving_target(const std::string& name) {
  const auto infix = name.rfind(orchestrator::kSavingInfix);
  if (infix == std::string::npos || infix == 0) return std::nullopt;
  const std::string_view rest =
      std::string_view(name).substr(infix + orchestrator::kSavingInfix.size());
  const bool random_suffix = rest.size() == 7 && rest.front() == '-' &&
                             std::all_of(rest.begin() + 1, rest.end(), [](char c) {
                               return std::isalnum(static_cast<unsigned char>(c)) != 0;
                             });
  if (!rest.empty() && !random_suffix) return std::nullopt;
  return name.substr(0, infix);
}

// A page's text is stored and served as UTF-8 (the wiki's pages, the JSON
// that carries them to an agent); bytes that are not would come back mangled.
void check_utf8(std::string_view text, const std::string& what) {
  const std::size_t invalid = utf8::find_invalid(text);
  if (invalid == std::string_view::npos) return;
  char byte[8];
  std::snprintf(byte, sizeof byte, "0x%02x", static_cast<unsigned char>(text[invalid]));
  throw ValueError(what + " is not valid UTF-8: bad byte " + byte + " at offset " +
                   std::to_string(invalid));
}

}  // namespace

void WikiGenerator::finish_interrupted_saves() {
  const fs::path pages_relative = orchestrator::wiki_relative(branch_) / "pages";
  const std::optional<SafeDir> pages = SafeDir::open_if_exists(checkout_root_, pages_relative);
  if (!pages) return;  // nothing saved yet
  bool changed = false;
  for (const auto& name : pages->names()) {
    const auto saving = saving_target(name);
    if (!saving) continue;
    const std::string& target = *saving;
    std::string content_hash;
    for (const auto& [id, row] : _existing()) {
      if (row_text(row, "rel_path") == "pages/" + target)
        content_hash = row_text(row, "content_hash");
    }
    bool committed = false;
    if (!content_hash.empty()) {
      try {
        committed = util::_text_hash(pages->open_file(name, O_RDONLY).read_all()) == content_hash;
      } catch (const OsError&) {
        // Not a file a save of ours wrote: removed below.
      }
    }
    if (committed) {
      // The row was committed with this body; only the rename was missing.
      pages->rename(name, target);
      plan_record_logger()->warn("finished the interrupted save of '{}'",
                                 (pages->path() / target).string());
    } else {
      pages->remove(name);
    }
    changed = true;
  }
  if (changed) pages->sync();
}

SaveResult WikiGenerator::save_page(const std::string& page_id, const std::string& body,
                                    const std::optional<Json>& citations,
                                    const std::optional<std::string>& title) {
  check_page_id_length(page_id);
  check_utf8(body, "body of page " + util::quote_input(page_id));
  if (title) {
    check_utf8(*title, "title of page " + util::quote_input(page_id));
    // A title is shown on one line of every listing; a line feed in it
    // would split a page's line in two.
    util::check_one_line(*title, "title of page " + util::quote_input(page_id));
  }
  const BranchHold hold = hold_branch();
  SaveResult result;
  std::optional<SafeDir> folder;
  std::string name;
  std::string temporary_name;
  bool logged = false;
  try {
    // Derivation and row in one write transaction: a build that commits
    // meanwhile either lands first, and the page is checked against its
    // plan, or waits for this save.
    auto transaction = repository().db().transaction();
    repository().lock_branch(branch_);
    Derivation derivation = derive(false);
    if (derivation.first_plan) {
      // A branch's first plan is recorded as a build records it, so the page
      // saved is not the only row the next build pins against.
      record_plan(derivation.pinned, false);
      if (!derivation.pinned.amendments.empty()) {
        record_log_line(plan_log_line(derivation.pinned.amendments, false));
        logged = true;
      }
    }
    last_plans_ = std::move(derivation.pinned.plans);
    const auto plan_it =
        std::find_if(last_plans_.begin(), last_plans_.end(),
                     [&](const PlanPtr& plan) { return plan->page_id == page_id; });
    if (plan_it == last_plans_.end()) {
      throw KeyError("page id " + util::quote_input(page_id) +
                     " is not in the current plan of branch " + branch_);
    }
    const PagePlan& plan = **plan_it;
    const Existing& existing = _existing();
    const auto row = existing.find(page_id);
    const std::string rel_path =
        row == existing.end() ? model::page_rel_path(page_id)
                              : row_text(row->second, "rel_path", model::page_rel_path(page_id));
    result.body_path =
        path_inside(wiki_dir_, rel_path, "rel_path of page " + util::quote_input(page_id));

    orchestrator::CheckedCitations checked =
        orchestrator::check_citations(citations, body, index_.files, checkout_root_);
    result.citations = std::move(checked.valid);
    result.invalid_citations = std::move(checked.invalid);

    WikiPageColumns columns = structural_columns(plan);
    columns.rel_path = rel_path;
    const std::vector<std::string> files = plan.source_files.empty() && row != existing.end()
                                               ? row_text_list(row->second, "source_files")
                                               : plan.source_files;
    columns.source_hashes = _hashes_with_steering(files);
    columns.content_hash = util::_text_hash(body);
    columns.build_cache = _section_cache(body, result.citations);
    columns.build_cache["citations"] = result.citations;
    // Beside the staleness part, never in it: the cited lines' hashes, which
    // tell later whether a section's cited code itself changed.
    columns.build_cache[std::string(orchestrator::kFingerprintsKey)] =
        orchestrator::make_fingerprints(body, result.citations, [this](const std::string& path) {
          return read_cited_file(path);
        });
    columns.status = "fresh";
    const std::string page_title = title && !title->empty() ? *title : plan.title;

    // The body goes to a synced file of its own beside its final name, and is
    // renamed only once the row is committed: a killed save leaves a file
    // whose hash tells whether its row committed (finish_interrupted_saves).
    const fs::path relative = result.body_path.lexically_relative(checkout_root_);
    folder = open_below_root(relative.parent_path(), true);
    name = relative.filename().string();
    FileDescriptor temporary =
        folder->create_unique(name + std::string(orchestrator::kSavingInfix) + "-");
    temporary_name = temporary.path().filename().string();
    temporary.write_all(body);
    temporary.sync();
    temporary.close();
    util::fault_point("save:body-written");
    repository().upsert_wiki_page(branch_, page_id, page_title, columns);
    repository().put_page_body(branch_, page_id, body);
  } catch (...) {
    if (!temporary_name.empty()) {
      try {
        folder->remove(temporary_name);
      } catch (const OsError&) {
        // The next command under the branch's lock removes it.
      }
    }
    throw;
  }
  util::fault_point("save:committed");
  folder->rename(temporary_name, name);
  folder->sync();
  if (logged) flush_pending_log(open_wiki_dir());
  result.row = _existing().at(page_id);
  return result;
}

std::optional<std::string> WikiGenerator::saved_body(const std::string& page_id) {
  const Existing rows = unmirrored_store_->load_pages(branch_);
  const auto row = rows.find(page_id);
  if (row == rows.end()) return std::nullopt;
  return saved_body(page_id, row->second);
}

std::optional<std::string> WikiGenerator::saved_body(const std::string& page_id, const Json& row) {
  if (row_text(row, "content_hash").empty()) return std::nullopt;
  const std::string rel_path = row_text(row, "rel_path", model::page_rel_path(page_id));
  const fs::path path =
      path_inside(wiki_dir_, rel_path, "rel_path of page " + util::quote_input(page_id));
  std::error_code ec;
  if (fs::is_regular_file(path, ec)) return read_whole_file(path);
  return unmirrored_store_->page_body(branch_, page_id);
}

}  // namespace zenthar_kodrune::workers::wiki
