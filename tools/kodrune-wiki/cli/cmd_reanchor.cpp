// `kodrune-wiki reanchor [PAGE_ID...]`: re-records written pages whose cited
// lines are all intact or moved, their line anchors moved to the new ranges.
#include <iostream>

#include "kodrune-wiki/cli/cmd_common.hpp"

namespace kodrune_cli {

Json reanchor_json(const std::vector<wiki::ReanchorResult>& results) {
  Json pages = Json::array();
  for (const auto& result : results) {
    Json page = Json::object();
    page["page_id"] = result.page_id;
    page["moved"] = result.moved;
    page["content_hash"] = result.saved.row.value("content_hash", "");
    page["citations"] = result.saved.citations;
    pages.push_back(std::move(page));
  }
  return {{"reanchored", std::move(pages)}};
}

namespace {

void print_reanchored(wiki::WikiGenerator& generator, const std::vector<std::string>& page_ids,
                      bool json) {
  const auto results = generator.reanchor(page_ids);
  if (json) {
    std::cout << reanchor_json(results).dump(-1, ' ', false, Json::error_handler_t::replace)
              << "\n";
    return;
  }
  if (results.empty()) std::cout << "no page only needs re-anchoring\n";
  for (const auto& result : results) {
    std::cout << "reanchored " << result.page_id;
    if (result.moved.empty()) std::cout << " (no anchor moved)";
    std::cout << "\n";
    for (const auto& moved : result.moved) {
      std::cout << "  " << moved << "\n";
    }
  }
}

}  // namespace

Command add_reanchor_command(CLI::App& app) {
  return add_pages_command(
      app, "reanchor",
      "Re-record written pages whose cited lines are all intact or moved, their line anchors "
      "moved to where the lines are now",
      "Pages to re-anchor (default: every stale page that only needs it)", print_reanchored);
}

}  // namespace kodrune_cli
