// Markdown to HTML through cmark-gfm, with raw HTML turned into text.
#include <cmark-gfm-core-extensions.h>
#include <cmark-gfm.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "kodrune-wiki/web/site.hpp"

namespace kodrune_cli::web {

namespace {

struct ParserDeleter {
  void operator()(cmark_parser* parser) const { cmark_parser_free(parser); }
};
struct NodeDeleter {
  void operator()(cmark_node* node) const { cmark_node_free(node); }
};

// A raw HTML node replaced by a node of `type` holding the same text. The
// safe renderer would drop it; showing it keeps what the writer wrote
// visible without letting it act.
void as_text(cmark_node* node, cmark_node_type type) {
  cmark_node* text = cmark_node_new(type);
  cmark_node_set_literal(text, cmark_node_get_literal(node));
  cmark_node_replace(node, text);
  cmark_node_free(node);
}

}  // namespace

std::string markdown_html(std::string_view markdown,
                          const std::function<std::string(std::string_view)>& rewrite) {
  static std::once_flag registered;
  std::call_once(registered, [] { cmark_gfm_core_extensions_ensure_registered(); });
  // CMARK_OPT_UNSAFE is never set: should a raw node survive, the renderer
  // omits it and blanks javascript: and similar link targets.
  const int options = CMARK_OPT_DEFAULT;
  std::unique_ptr<cmark_parser, ParserDeleter> parser(cmark_parser_new(options));
  for (const char* name : {"table", "strikethrough", "autolink", "tasklist"}) {
    if (cmark_syntax_extension* extension = cmark_find_syntax_extension(name)) {
      cmark_parser_attach_syntax_extension(parser.get(), extension);
    }
  }
  cmark_parser_feed(parser.get(), markdown.data(), markdown.size());
  std::unique_ptr<cmark_node, NodeDeleter> document(cmark_parser_finish(parser.get()));

  // Nodes are changed after the walk: replacing a node under the iterator
  // would end the walk early.
  std::vector<std::pair<cmark_node*, cmark_node_type>> raw;
  cmark_iter* iter = cmark_iter_new(document.get());
  for (cmark_event_type event; (event = cmark_iter_next(iter)) != CMARK_EVENT_DONE;) {
    if (event != CMARK_EVENT_ENTER) continue;
    cmark_node* node = cmark_iter_get_node(iter);
    const cmark_node_type type = cmark_node_get_type(node);
    if (type == CMARK_NODE_HTML_BLOCK) {
      raw.emplace_back(node, CMARK_NODE_CODE_BLOCK);
    } else if (type == CMARK_NODE_HTML_INLINE) {
      raw.emplace_back(node, CMARK_NODE_TEXT);
    } else if (type == CMARK_NODE_LINK || type == CMARK_NODE_IMAGE) {
      const char* url = cmark_node_get_url(node);
      const std::string target = rewrite(url == nullptr ? "" : url);
      cmark_node_set_url(node, target.c_str());
    }
  }
  cmark_iter_free(iter);
  for (const auto& [node, type] : raw) as_text(node, type);

  char* html =
      cmark_render_html(document.get(), options, cmark_parser_get_syntax_extensions(parser.get()));
  std::string out(html);
  std::free(html);
  return out;
}

}  // namespace kodrune_cli::web
