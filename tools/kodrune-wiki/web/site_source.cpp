// The source view: a file of the repository index with its cited lines.
#include <fcntl.h>

#include <algorithm>

#include "kodrune-wiki/web/site.hpp"
#include "kodrune-wiki/web/site_parts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli::web {

namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::Json;

std::optional<std::string> WikiSite::source_html(const std::string& path,
                                                 std::optional<LineRange> highlight) {
  if (index_files_.count(path) == 0 || under_wiki_folder(path)) return std::nullopt;
  std::string text;
  try {
    // A link, anywhere on the way, is refused: the file must be the
    // repository's own.
    const std::filesystem::path relative(path);
    const auto folder = wiki::SafeDir::open_if_exists(g_.checkout_root(), relative.parent_path());
    if (!folder) return std::nullopt;
    auto file = folder->open_existing(relative.filename().string(), O_RDONLY);
    if (!file) return std::nullopt;
    text = file->read_all();
  } catch (const wiki::OsError&) {
    return std::nullopt;
  }
  const std::string from = "source/" + path + ".html";
  std::set<std::int64_t> cited_lines;
  if (links_.static_site) {
    // No server to ask which range a link meant: every cited range of the file is marked.
    for (const auto& [id, row] : g_._existing()) {
      const Json* cache = wiki::row_mapping(row, "build_cache");
      const Json* citations = cache == nullptr ? nullptr : wiki::find_value(*cache, "citations");
      if (citations == nullptr || !citations->is_array()) continue;
      for (const Json& citation : *citations) {
        if (citation.value("path", "") != path) continue;
        const std::int64_t start = citation.value("line_start", std::int64_t{0});
        const std::int64_t end =
            std::min<std::int64_t>(citation.value("line_end", start), start + 100000);
        for (std::int64_t line = start; line <= end; ++line) cited_lines.insert(line);
      }
    }
  }
  std::string main = "<h1 class=\"source-path\">" + html_escaped(path) + "</h1>";
  if (highlight) {
    main +=
        "<p class=\"cited-range\">Cited: " + lines_text(highlight->from, highlight->to) + "</p>";
  }
  if (!wiki::is_utf8(text)) {
    main += "<p>Not UTF-8 text: not shown.</p>";
    return layout(from, path, "", main);
  }
  main += "<pre class=\"source\"><code>";
  std::int64_t number = 0;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    ++number;
    const bool cited = (highlight && number >= highlight->from && number <= highlight->to) ||
                       cited_lines.count(number) != 0;
    const std::string id = "L" + std::to_string(number);
    main += "<span class=\"line" + std::string(cited ? " cited" : "") + "\" id=\"" + id +
            "\"><a class=\"ln\" href=\"#" + id + "\">" + std::to_string(number) + "</a>" +
            html_escaped(std::string_view(text).substr(start, end - start)) + "</span>";
    start = end + 1;
  }
  main += "</code></pre>";
  return layout(from, path, "", main);
}
}  // namespace kodrune_cli::web
