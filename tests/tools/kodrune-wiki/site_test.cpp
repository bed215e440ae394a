// The HTML the browser view writes from texts it did not write itself:
// escaping, URL paths, and Markdown whose raw HTML and dangerous links must
// never act; and the page tree a large branch shows beside each page.
#include "kodrune-wiki/site.hpp"

#include <gtest/gtest.h>

#include <string>

#include "e2e/repo_fixture.hpp"

namespace kodrune_cli {
namespace {

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
  EXPECT_NE(html.find("<table>"), std::string::npos) << html;
  EXPECT_NE(html.find("<td>1</td>"), std::string::npos) << html;
  EXPECT_NE(html.find("<code class=\"language-cpp\">int x;\n</code>"), std::string::npos) << html;
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
    EXPECT_NE(html.find(c.shown), std::string::npos) << html;
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
  EXPECT_NE(html.find("href=\"/rewritten/1\""), std::string::npos) << html;
  EXPECT_NE(html.find("src=\"/rewritten/2\""), std::string::npos) << html;
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

// Seven module pages, no families: a sidebar that may not hold them all
// lists the page's neighbours in build order and links to the tree page.
TEST(WikiSiteTree, ALargeBranchsSidebarListsThePagesNeighboursAndLinksToAllPages) {
  namespace wiki = zenthar_kodrune::workers::wiki;
  kodrune_e2e::GitRepo repo;
  for (int unit = 1; unit <= 7; ++unit) repo.write_unit("u" + std::to_string(unit), 2);
  repo.commit("seed");
  repo.plan();
  wiki::WikiGeneratorOptions options;
  options.progress = false;
  wiki::WikiGenerator generator(repo.root(), "main", repo.store(), std::move(options));
  WikiSite whole(generator, SiteLinks{}, {"main"});
  whole.load();
  const std::vector<std::string> ids = whole.page_ids();
  ASSERT_GE(ids.size(), 8u);
  const std::size_t last = ids.size() - 1;
  const auto slice = [&](std::size_t from, std::size_t to) {
    return std::vector<std::string>(ids.begin() + from, ids.begin() + to + 1);
  };
  const struct {
    const char* name;
    std::size_t limit, neighbours, page;
    std::vector<std::string> listed;
  } cases[] = {
      {"small enough for the whole tree", 100, 1, 3, ids},
      {"one either side", 3, 1, 3, slice(2, 4)},
      {"the first page", 3, 1, 0, slice(0, 1)},
      {"the last page", 3, 2, last, slice(last - 2, last)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SiteLinks links;
    links.tree_limit = c.limit;
    links.tree_neighbours = c.neighbours;
    WikiSite site(generator, links, {"main"});
    site.load();
    std::string tree;
    EXPECT_EQ(tree_ids(*site.page_html(ids[c.page]), &tree), c.listed);
    const std::string all = "href=\"/tree.html\">All " + std::to_string(ids.size()) + " pages</a>";
    EXPECT_EQ(tree.find(all) != std::string::npos, c.limit < ids.size()) << tree;
    EXPECT_EQ(tree_ids(site.tree_page_html()), ids);
  }
}

}  // namespace
}  // namespace kodrune_cli
