// The HTML the browser view writes from texts it did not write itself:
// escaping, URL paths, and Markdown whose raw HTML and dangerous links must
// never act; and the page tree a large branch shows beside each page.
#include "kodrune-wiki/web/site.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "e2e/repo_fixture.hpp"

namespace kodrune_cli::web {
namespace {

using ::testing::HasSubstr;

std::string render(const std::string& markdown) {
  return markdown_html(markdown, [](std::string_view url) { return std::string(url); });
}

TEST(HtmlEscaped, EscapesEveryCharacterThatEndsATextOrAnAttribute) {
  EXPECT_EQ(html_escaped("<a href=\"x\" title='y'>&</a>"),
            "&lt;a href=&quot;x&quot; title=&#39;y&#39;&gt;&amp;&lt;/a&gt;");
  EXPECT_EQ(html_escaped(std::string("a\0b", 3)), "a&#xFFFD;b");
  EXPECT_EQ(html_escaped("caf\xC3\xA9"), "caf\xC3\xA9");
}

TEST(UrlPath, KeepsSlashesAndEncodesTheRest) {
  EXPECT_EQ(url_path("src/a b/x\"y?.cpp"), "src/a%20b/x%22y%3F.cpp");
  EXPECT_EQ(url_path("caf\xC3\xA9#1"), "caf%C3%A9%231");
}

TEST(MarkdownHtml, RendersTablesAndFencedCode) {
  const std::string html = render("| a | b |\n|---|---|\n| 1 | 2 |\n\n```cpp\nint x;\n```\n");
  EXPECT_THAT(html, HasSubstr("<table>"));
  EXPECT_THAT(html, HasSubstr("<td>1</td>"));
  EXPECT_THAT(html, HasSubstr("<code class=\"language-cpp\">int x;\n</code>"));
}

// Each hostile input, and a text the output must not hold.
TEST(MarkdownHtml, NeverLetsRawHtmlOrScriptLinksAct) {
  const struct {
    const char* name;
    const char* markdown;
    const char* shown;      // must appear, escaped
    const char* forbidden;  // must not appear
  } cases[] = {
      {"script block", "<script>alert(1)</script>\n", "&lt;script&gt;alert(1)&lt;/script&gt;",
       "<script"},
      {"inline img", "a <img src=x onerror=alert(1)> b\n", "&lt;img src=x onerror=alert(1)&gt;",
       "<img"},
      {"iframe block", "<iframe src=\"//evil\"></iframe>\n", "&lt;iframe", "<iframe"},
      {"javascript link", "[x](javascript:alert(1))\n", "x", "javascript:"},
      {"data link", "[x](data:text/html,<b>hi</b>)\n", "x", "data:text/html"},
      {"attribute break", "[x](\"onmouseover=alert(1))\n", "x", "\" onmouseover"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string html = render(c.markdown);
    EXPECT_THAT(html, HasSubstr(c.shown));
    EXPECT_EQ(html.find(c.forbidden), std::string::npos) << html;
  }
}

TEST(MarkdownHtml, SendsEveryLinkAndImageTargetThroughTheRewrite) {
  std::vector<std::string> seen;
  const std::string html = markdown_html("[a](src/a.cpp#L1-L3) ![i](pic.png) <https://x.example>\n",
                                         [&](std::string_view url) {
                                           seen.emplace_back(url);
                                           return "/rewritten/" + std::to_string(seen.size());
                                         });
  EXPECT_EQ(seen, (std::vector<std::string>{"src/a.cpp#L1-L3", "pic.png", "https://x.example"}));
  EXPECT_THAT(html, HasSubstr("href=\"/rewritten/1\""));
  EXPECT_THAT(html, HasSubstr("src=\"/rewritten/2\""));
}

TEST(LinkedPage, NamesAPageOfTheWikiByAnyOfItsLinkForms) {
  const std::set<std::string> ids{"module-src"};
  EXPECT_EQ(linked_page("wiki://main/pages/module-src.md", ids), "module-src");
  EXPECT_EQ(linked_page("pages/module-src.md", ids), "module-src");
  EXPECT_EQ(linked_page("module-src.md", ids), "module-src");
  EXPECT_EQ(linked_page("https://x/pages/module-src.md", ids), "");
  EXPECT_EQ(linked_page("other/module-src.md", ids), "");
  EXPECT_EQ(linked_page("module-lib.md", ids), "");
}

// The data-page ids of `html`'s first page tree, in order; `tree` is that
// tree's HTML.
std::vector<std::string> tree_ids(const std::string& html, std::string* tree = nullptr) {
  const std::size_t from = html.find("<nav class=\"tree\"");
  const std::string nav = html.substr(from, html.find("</nav>", from) - from);
  if (tree != nullptr) *tree = nav;
  std::vector<std::string> ids;
  const std::string mark = "data-page=\"";
  for (std::size_t at = nav.find(mark); at != std::string::npos; at = nav.find(mark, at)) {
    at += mark.size();
    ids.push_back(nav.substr(at, nav.find('"', at) - at));
  }
  return ids;
}

// Seven modules, u4 a family of two parts: a sidebar that may not hold
// every page lists the families either side of the page's own, only that
// family with its parts, and links to the tree page, which holds them all.
TEST(WikiSiteTree, ALargeBranchsSidebarListsThePagesNeighboursAndLinksToAllPages) {
  namespace wiki = zenthar_kodrune::workers::wiki;
  using Ids = std::vector<std::string>;
  kodrune_e2e::GitRepo repo;
  for (int unit = 1; unit <= 7; ++unit)
    repo.write_unit("u" + std::to_string(unit), unit == 4 ? 17 : 2);
  repo.commit("seed");
  repo.plan();
  wiki::WikiGeneratorOptions options;
  options.progress = false;
  wiki::WikiGenerator generator(repo.root(), "main", repo.store(), std::move(options));
  // The larger module is built first.
  const Ids all{"overview",  "module-u4", "module-u4-part-f01", "module-u4-part-f07", "module-u1",
                "module-u2", "module-u3", "module-u5",          "module-u6",          "module-u7"};
  const Ids family{"module-u4", "module-u4-part-f01", "module-u4-part-f07"};
  const auto around = [&](const char* before, const char* after) {
    Ids ids{before};
    ids.insert(ids.end(), family.begin(), family.end());
    ids.emplace_back(after);
    return ids;
  };
  const struct {
    const char* name;
    std::size_t limit, neighbours;
    const char* page;
    Ids listed;
  } cases[] = {
      {"small enough for the whole tree", 100, 1, "module-u1", all},
      {"a family's head", 3, 1, "module-u4", around("overview", "module-u1")},
      {"a part", 3, 1, "module-u4-part-f07", around("overview", "module-u1")},
      {"beside a family", 3, 1, "module-u1", {"module-u4", "module-u1", "module-u2"}},
      {"the first page", 3, 1, "overview", {"overview", "module-u4"}},
      {"the last page", 3, 2, "module-u7", {"module-u5", "module-u6", "module-u7"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SiteLinks links;
    links.tree_limit = c.limit;
    links.tree_neighbours = c.neighbours;
    WikiSite site(generator, links, {"main"});
    site.load();
    std::string tree;
    EXPECT_EQ(tree_ids(*site.page_html(c.page), &tree), c.listed);
    const std::string link = "href=\"/tree.html\">All 10 pages</a>";
    EXPECT_EQ(tree.find(link) != std::string::npos, c.limit < all.size()) << tree;
    EXPECT_THAT(tree, HasSubstr("<li data-page=\"" + std::string(c.page) +
                                "\" data-state=\"unwritten\" class=\"current\">"));
    EXPECT_EQ(tree_ids(site.tree_page_html()), all);
  }
}

}  // namespace
}  // namespace kodrune_cli::web
