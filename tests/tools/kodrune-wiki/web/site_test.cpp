// The HTML the browser view writes from texts it did not write itself:
// escaping, URL paths, and Markdown whose raw HTML and dangerous links must
// never act.
#include "kodrune-wiki/web/site.hpp"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace kodrune_cli
