// The plan log as the commands read it: from the shared store when it keeps
// the log, else from the branch's wiki folder; and the local copy rewritten
// from the shared store's lines.
#include <fcntl.h>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

std::vector<Json> WikiGenerator::plan_log(std::size_t limit) {
  return plan_log_read(limit).entries;
}

PlanLogRead WikiGenerator::plan_log_read(std::size_t limit) {
  if (auto shared = unmirrored_store_->plan_log_lines(branch_)) {
    std::string text;
    for (const auto& line : *shared) text.append(line).push_back('\n');
    return parse_plan_log(text, limit);
  }
  return read_plan_log(checkout_root_, branch_, limit);
}

void write_plan_log_copy(const SafeDir& wiki_dir, const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text.append(line).push_back('\n');
  // Built by appending: GCC 12 at -O2 warns falsely on the concatenation.
  std::string prefix(_PLAN_LOG_NAME);
  prefix.append(".copy-");
  FileDescriptor copy = wiki_dir.create_unique(prefix);
  const std::string name = copy.path().filename().string();
  try {
    copy.write_all(text);
    copy.close();
    wiki_dir.rename(name, std::string(_PLAN_LOG_NAME));
  } catch (...) {
    try {
      wiki_dir.remove(name);
    } catch (const OsError&) {
      // Left for nobody to read: the log's own name is what is read.
    }
    throw;
  }
}

PlanLogRead read_plan_log(const SafeDir& wiki_dir, std::size_t limit) {
  auto log = wiki_dir.open_existing(_PLAN_LOG_NAME, O_RDONLY);
  if (!log) return {};
  return parse_plan_log(log->read_all(), limit);
}

PlanLogRead parse_plan_log(std::string_view text, std::size_t limit) {
  PlanLogRead read;
  std::size_t number = 0;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view line(text.data() + start, end - start);
    start = end + 1;
    ++number;
    if (line.empty()) continue;
    try {
      Json entry = parse_json(line);
      if (!entry.is_object()) throw ValueError("not a JSON object");
      read.entries.push_back(std::move(entry));
    } catch (const ValueError& e) {
      read.unreadable.push_back("line " + std::to_string(number) + ": " + e.what());
    }
  }
  if (limit != 0 && read.entries.size() > limit) {
    read.entries.erase(read.entries.begin(),
                       read.entries.end() - static_cast<std::ptrdiff_t>(limit));
  }
  return read;
}

PlanLogRead read_plan_log(const fs::path& checkout_root, const std::string& branch,
                          std::size_t limit) {
  const auto wiki = SafeDir::open_if_exists(checkout_root, wiki_dir_of({}, branch));
  if (!wiki) return {};
  return read_plan_log(*wiki, limit);
}

}  // namespace zenthar_kodrune::workers::wiki
