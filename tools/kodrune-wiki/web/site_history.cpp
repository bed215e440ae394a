// The plan audit log as a timeline, under an SVG chart of its structural churn.
#include <algorithm>
#include <cstdio>
#include <map>

#include "kodrune-wiki/web/site.hpp"
#include "kodrune-wiki/web/site_parts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli::web {

namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::Json;

namespace {

// Structural amendments as the drift warning counts them.
std::int64_t structural_count(const Json& amendments) {
  std::int64_t count = 0;
  for (const Json& record : amendments) {
    if (!record.is_object()) continue;
    const std::string action = record.value("action", "");
    if (action != "add" && action != "retire" && action != "remap") continue;
    if (wiki::is_pinned_level(wiki::row_text(record, "level", "module"))) ++count;
  }
  return count;
}

}  // namespace

std::string WikiSite::history_html() {
  const wiki::PlanLogRead log = g_.plan_log_read(0);
  const std::int64_t plan_size = static_cast<std::int64_t>(plan_size_);
  // The drift warning's own rule, against the plan's size now.
  const std::int64_t threshold = std::max<std::int64_t>(3, plan_size / 3);
  struct Build {
    const Json* entry;
    std::int64_t structural;
    std::optional<std::string> drift;
  };
  std::vector<Build> builds;
  for (std::size_t i = 0; i < log.entries.size(); ++i) {
    const Json& entry = log.entries[i];
    const Json amendments = entry.value("amendments", Json::array());
    Build build{&entry, structural_count(amendments), std::nullopt};
    // The log's first build planned everything anew: no churn.
    if (i != 0 && amendments.is_array()) {
      try {
        build.drift =
            wiki::drift_signal(wiki::Amendments(amendments.begin(), amendments.end()), plan_size);
      } catch (const std::exception&) {
        build.drift = std::nullopt;  // a damaged record counts for nothing
      }
    }
    builds.push_back(build);
  }

  std::string main = "<h1>History of branch " + html_escaped(g_.branch()) + "</h1>";
  // The chart: one bar per build, structural amendments against the threshold.
  std::int64_t top = threshold;
  for (const auto& build : builds) top = std::max(top, build.structural);
  const std::int64_t width = 640, height = 180, pad = 28;
  const double bar =
      builds.empty() ? 0 : std::min(48.0, double(width - 2 * pad) / double(builds.size()));
  const auto y_of = [&](std::int64_t value) {
    return double(height - pad) - double(value) * double(height - 2 * pad) / double(top);
  };
  char number[64];
  main +=
      "<svg class=\"chart\" role=\"img\" aria-label=\"Structural amendments per build\" "
      "viewBox=\"0 0 " +
      std::to_string(width) + " " + std::to_string(height) + "\" width=\"" + std::to_string(width) +
      "\" height=\"" + std::to_string(height) + "\" xmlns=\"http://www.w3.org/2000/svg\">";
  for (std::size_t i = 0; i < builds.size(); ++i) {
    const double y = y_of(builds[i].structural);
    std::snprintf(number, sizeof number, "x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"",
                  pad + i * bar + bar * 0.15, y, std::max(bar * 0.7, 1.0),
                  double(height - pad) - y);
    main += "<rect class=\"bar\" " + std::string(number) + " fill=\"" +
            (builds[i].drift ? "#cf222e" : "#0969da") + "\"><title>" +
            html_escaped(builds[i].entry->value("at", "")) + ": " +
            std::to_string(builds[i].structural) + " structural amendments</title></rect>";
  }
  std::snprintf(number, sizeof number, "%.1f", y_of(threshold));
  main += "<line class=\"threshold\" x1=\"" + std::to_string(pad) + "\" x2=\"" +
          std::to_string(width - pad) + "\" y1=\"" + number + "\" y2=\"" + number +
          "\" stroke=\"#cf222e\" stroke-dasharray=\"4 3\"/>";
  main += "<text x=\"" + std::to_string(width - pad) + "\" y=\"" + number +
          "\" dy=\"-4\" text-anchor=\"end\">drift threshold " + std::to_string(threshold) +
          "</text>";
  main += "<line x1=\"" + std::to_string(pad) + "\" x2=\"" + std::to_string(width - pad) +
          "\" y1=\"" + std::to_string(height - pad) + "\" y2=\"" + std::to_string(height - pad) +
          "\" stroke=\"#8c959f\"/>";
  main += "<text x=\"" + std::to_string(pad) + "\" y=\"" + std::to_string(height - 8) +
          "\">builds, oldest first (" + std::to_string(builds.size()) + ")</text></svg>";

  main += "<ol class=\"timeline\" reversed>";
  for (auto build = builds.rbegin(); build != builds.rend(); ++build) {
    const Json& entry = *build->entry;
    main += "<li class=\"build" + std::string(build->drift ? " drift" : "") + "\"><h2>" +
            html_escaped(entry.value("at", "(undated)")) +
            (entry.value("replan", false) ? " (replan)" : "") + "</h2>";
    if (build->drift)
      main += "<p class=\"drift-note\">Drift: " + html_escaped(*build->drift) + "</p>";
    std::map<std::string, std::vector<const Json*>> by_action;
    const Json amendments = entry.value("amendments", Json::array());
    for (const Json& record : amendments) {
      if (record.is_object()) by_action[record.value("action", "?")].push_back(&record);
    }
    for (const auto& [action, records] : by_action) {
      main += "<h3>" + html_escaped(action) + " (" + std::to_string(records.size()) + ")</h3><ul>";
      for (const Json* record : records) {
        const std::string id = record->value("page_id", "?");
        main += "<li class=\"amendment\">";
        if (ids_.count(id) != 0) {
          main += "<a href=\"" + html_escaped(page_href("history.html", id)) + "\">" +
                  html_escaped(id) + "</a>";
        } else {
          main += "<code>" + html_escaped(id) + "</code>";
        }
        if (record->contains("level"))
          main += " [" + html_escaped(record->value("level", "")) + "]";
        const std::string reason = record->value("reason", "");
        if (!reason.empty()) main += ": " + html_escaped(reason);
        main += "</li>";
      }
      main += "</ul>";
    }
    main += "</li>";
  }
  main += "</ol>";
  for (const auto& note : log.unreadable) main += "<p class=\"why\">" + html_escaped(note) + "</p>";
  return layout("history.html", "History of branch " + g_.branch(), "", main);
}
}  // namespace kodrune_cli::web
