// Small helpers the files drawing the wiki's pages share.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kodrune-wiki/web/site.hpp"

namespace kodrune_cli::web {

// "fresh", "stale" or "unwritten": the class and data-state of a page's badge.
std::string badge_class(bool written, bool stale);

// "L12" or "L12-L20".
std::string lines_text(std::int64_t from, std::int64_t to);

// "L12" or "L12-L20" as a range; nullopt for anything else.
std::optional<LineRange> parse_anchor(std::string_view anchor);

// The wiki's own folder, never shown as a source.
bool under_wiki_folder(const std::string& path);

// Each item escaped in <code>, comma-separated.
std::string text_list(const std::vector<std::string>& items);

}  // namespace kodrune_cli::web
