// `kodrune-wiki changes [PAGE_ID...]`: what changed under written pages since
// they were saved. Derives the current plan without writing anything.
#include <iostream>

#include "kodrune-wiki/cli/cmd_common.hpp"

namespace kodrune_cli {

namespace {

void print_list(std::ostream& out, const char* label, const Json& items) {
  if (items.empty()) return;
  out << "  " << label << ":";
  for (const auto& item : items) out << " " << item.get<std::string>();
  out << "\n";
}

void print_headings(std::ostream& out, const char* label, const Json& headings) {
  if (headings.empty()) return;
  out << "  " << label << ":";
  for (const auto& heading : headings) {
    const std::string text = heading.get<std::string>();
    out << " \"" << (text.empty() ? "(lead)" : text) << "\"";
  }
  out << "\n";
}

// Every cited range that is not intact, with its section and where it is now.
void print_citations(std::ostream& out, const Json& citations) {
  std::size_t intact = 0;
  std::string lines;
  for (const auto& citation : citations) {
    const std::string state = citation.at("state").get<std::string>();
    if (state == "intact") {
      ++intact;
      continue;
    }
    lines += "    " + citation.at("path").get<std::string>() + " L" +
             std::to_string(citation.at("line_start").get<std::int64_t>()) + "-L" +
             std::to_string(citation.at("line_end").get<std::int64_t>()) + ": " + state;
    if (state == "moved") {
      lines += " to L" + std::to_string(citation.at("now").at("line_start").get<std::int64_t>()) +
               "-L" + std::to_string(citation.at("now").at("line_end").get<std::int64_t>());
    }
    const Json& section = citation.at("section");
    if (section.is_string()) {
      const std::string heading = section.get<std::string>();
      lines += " (in \"" + (heading.empty() ? std::string("(lead)") : heading) + "\")";
    }
    lines += "\n";
  }
  if (citations.empty()) return;
  out << "  cited ranges: " << citations.size() << " (" << intact << " intact)\n" << lines;
}

void print_changes(wiki::WikiGenerator& generator, const std::vector<std::string>& page_ids,
                   bool json) {
  const Json changes = generator.precise_changes(page_ids);
  if (json) {
    std::cout << changes.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
    return;
  }
  if (changes.empty()) std::cout << "no written pages\n";
  for (const auto& [id, change] : changes.items()) {
    if (change.empty()) {
      std::cout << id << ": never written\n";
      continue;
    }
    const Json& files = change.at("changed_files");
    const Json& sections = change.at("stale_sections");
    if (files.at("added").empty() && files.at("removed").empty() && files.at("modified").empty() &&
        sections.empty()) {
      std::cout << id << ": unchanged\n";
      continue;
    }
    std::cout << id << ":\n";
    print_list(std::cout, "added", files.at("added"));
    print_list(std::cout, "removed", files.at("removed"));
    print_list(std::cout, "modified", files.at("modified"));
    print_headings(std::cout, "stale sections", sections);
    print_headings(std::cout, "changed sections", change.at("changed_sections"));
    print_citations(std::cout, change.at("citations"));
  }
}

}  // namespace

Command add_changes_command(CLI::App& app) {
  return add_pages_command(
      app, "changes",
      "For each written page: files added, removed, modified, stale sections, and what each "
      "cited line range did (intact, moved, changed, gone)",
      "Pages to look at (default: every written page)", print_changes);
}

}  // namespace kodrune_cli
