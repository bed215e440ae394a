// `kodrune-wiki save PAGE_ID BODY.md`: records a written page of the current plan.
#include <fstream>
#include <iostream>
#include <sstream>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace kodrune_cli {

namespace {

struct SaveOptions {
  CommonOptions common;
  std::string page_id;
  std::string body_file;
  std::string citations_file;
  std::string title;
};

// The user names the file, so a link of theirs is followed; but it must end
// at a regular file: a folder reads as nothing and would empty the page.
std::string read_input(const std::string& path, const std::string& what) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    throw wiki::OsError("cannot read " + what + " " + path + ": not a regular file");
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) throw wiki::OsError("cannot read " + what + " " + path + ": " + std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw wiki::OsError("cannot read " + what + " " + path);
  return text.str();
}

std::string describe(const Json& citation) {
  return citation.value("path", "?") + "#L" + std::to_string(citation.value("line_start", 0)) +
         "-L" + std::to_string(citation.value("line_end", 0));
}

}  // namespace

Command add_save_command(CLI::App& app) {
  auto options = std::make_shared<SaveOptions>();
  CLI::App* command =
      app.add_subcommand("save", "Record a written page: its body, hashes and citations");
  command->add_option("PAGE_ID", options->page_id, "Id of a page of the current plan")->required();
  command->add_option("BODY", options->body_file, "Markdown file holding the page's body")
      ->required();
  command->add_option("--citations", options->citations_file,
                      "JSON list of citation records {path, line_start, line_end, symbol} "
                      "(default: the body's prose citations that verify)");
  command->add_option("--title", options->title, "Display title the author chose");
  add_common_options(*command, options->common);
  return Command{
      command, [options] {
        return run_guarded(
            [&] {
              // Inputs first: a missing file must not leave a build behind.
              const std::string body = read_input(options->body_file, "body file");
              std::optional<Json> citations;
              if (!options->citations_file.empty()) {
                const std::string text = read_input(options->citations_file, "citations file");
                try {
                  citations = wiki::parse_json(text);
                } catch (const wiki::ValueError& e) {
                  throw wiki::ValueError("citations file " + options->citations_file +
                                         " is not JSON: " + e.what());
                }
              }
              auto generator = open_generator(options->common);
              const auto saved = generator->save_page(
                  options->page_id, body, citations,
                  options->title.empty() ? std::nullopt
                                         : std::optional<std::string>(options->title));
              if (options->common.json) {
                Json out = Json::object();
                out["page_id"] = options->page_id;
                out["rel_path"] = saved.row.value("rel_path", "");
                out["body_path"] = saved.body_path.string();
                out["content_hash"] = saved.row.value("content_hash", "");
                out["citations"] = saved.citations;
                out["invalid_citations"] = saved.invalid_citations;
                std::cout << out.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
                return 0;
              }
              std::cout << "saved " << options->page_id << " to " << saved.body_path.string()
                        << " (" << saved.citations.size() << " citations stored)\n";
              for (const auto& invalid : saved.invalid_citations) {
                std::cout << "  invalid citation " << describe(invalid) << ": "
                          << invalid.value("reason", "") << "\n";
              }
              return 0;
            },
            std::cerr);
      }};
}

}  // namespace kodrune_cli
