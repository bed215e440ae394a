// `kodrune-wiki serve`: the wiki in a browser, read-only. Each request reads
// the repository, the rows and the log as they are then, so a `plan` or a
// `save` beside the server shows on the next reload. It never builds, never
// writes, and never takes a branch's lock: a request reads the rows in one
// read transaction and the files without any lock.
#include <httplib.h>
#include <signal.h>

#include <atomic>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "kodrune-wiki/web/site.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace kodrune_cli {

using web::LineRange;
using web::SiteLinks;
using web::url_path;
using web::WikiSite;

namespace fs = std::filesystem;

namespace {

struct ServeOptions {
  CommonOptions common;
  int port = 0;
  std::string bind = "127.0.0.1";
  bool open = false;
};

// Only the server's own stylesheet; no script, no frame, no form.
constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; style-src 'self'; img-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'";

bool is_loopback(const std::string& address) {
  return address == "localhost" || address == "::1" || address.rfind("127.", 0) == 0;
}

// The host part of a Host header: "[::1]:8080" gives "::1", "a:80" gives "a".
std::string host_name(const std::string& header) {
  if (!header.empty() && header.front() == '[') {
    const auto close = header.find(']');
    return close == std::string::npos ? header : header.substr(1, close - 1);
  }
  return header.substr(0, header.find(':'));
}

// A request path no page may come from: "..", an encoded slash or
// backslash, a NUL, in the raw target or once decoded.
bool refused_path(const std::string& target, const std::string& path) {
  std::string raw = target.substr(0, target.find('?'));
  for (auto& c : raw) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (raw.find("%2f") != std::string::npos || raw.find("%5c") != std::string::npos ||
      raw.find("%00") != std::string::npos || raw.find('\0') != std::string::npos) {
    return true;
  }
  if (path.find('\0') != std::string::npos || path.find('\\') != std::string::npos) return true;
  std::size_t start = 0;
  while (start <= path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view segment(path.data() + start, end - start);
    if (segment == ".." || segment == ".") return true;
    start = end + 1;
  }
  return false;
}

std::optional<LineRange> lines_query(const std::string& text) {
  LineRange range;
  const auto dash = text.find('-');
  try {
    std::size_t used = 0;
    range.from = std::stoll(text.substr(0, dash), &used);
    if (used != text.substr(0, dash).size()) return std::nullopt;
    range.to = range.from;
    if (dash != std::string::npos) {
      range.to = std::stoll(text.substr(dash + 1), &used);
      if (used != text.size() - dash - 1) return std::nullopt;
    }
  } catch (const std::exception&) {
    return std::nullopt;
  }
  if (range.from < 1 || range.to < range.from) return std::nullopt;
  return range;
}

class Server {
 public:
  explicit Server(const ServeOptions& options)
      : options_(options), default_branch_(resolve_branch(options.common)) {
    check_repo(options.common);
    store_url_ = resolve_store(options.common.store);
  }

  void run() {
    httplib::Server http;
    http.set_default_headers({{"Content-Security-Policy", kContentSecurityPolicy},
                              {"X-Content-Type-Options", "nosniff"},
                              {"Referrer-Policy", "no-referrer"},
                              {"Cache-Control", "no-store"}});
    // The library's default shares the port with any other socket of ours
    // that asks (SO_REUSEPORT): a port in use must be an error instead.
    http.set_socket_options([](socket_t socket) {
      int yes = 1;
      setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    // Browsers keep connections open; a short keep-alive lets a stop finish soon.
    http.set_keep_alive_timeout(1);
    http.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
      handle(request, response);
    });
    const int port = options_.port == 0
                         ? http.bind_to_any_port(options_.bind)
                         : (http.bind_to_port(options_.bind, options_.port) ? options_.port : -1);
    if (port < 0) {
      throw wiki::OsError("could not listen on " + options_.bind + " port " +
                          std::to_string(options_.port));
    }
    port_ = port;
    const std::string host =
        options_.bind.find(':') != std::string::npos ? "[" + options_.bind + "]" : options_.bind;
    const std::string url = "http://" + host + ":" + std::to_string(port) + "/";
    if (!is_loopback(options_.bind)) {
      std::cerr << "kodrune-wiki: warning: serving on " << options_.bind
                << ": the wiki becomes visible to that network\n";
    }
    if (options_.common.json) {
      std::cout
          << Json({{"url", url}, {"address", options_.bind}, {"port", port}, {"read_only", true}})
                 .dump()
          << std::endl;
    } else {
      std::cout << "serving the wiki of branch " << default_branch_ << " at " << url
                << " (read-only; Ctrl-C stops)" << std::endl;
    }
    if (options_.open) {
      const std::string command = "xdg-open '" + url + "' >/dev/null 2>&1 &";
      if (std::system(command.c_str()) != 0)
        std::cerr << "kodrune-wiki: could not open " << url << "\n";
    }

    // SIGINT and SIGTERM are taken by a thread of their own, which stops the
    // server; no other thread ever sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    std::atomic<bool> signalled = false;
    std::thread waiter([&] {
      int number = 0;
      sigwait(&signals, &number);
      signalled = true;
      http.stop();
    });
    http.listen_after_bind();
    // A server that ended on its own wakes the waiter to end it too.
    if (!signalled) pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();
  }

 private:
  void handle(const httplib::Request& request, httplib::Response& response) {
    const auto not_found = [&] {
      response.status = 404;
      response.set_content("Not found\n", "text/plain; charset=utf-8");
    };
    const std::string host = host_name(request.get_header_value("Host"));
    if (host != "localhost" && host != "127.0.0.1" && host != "::1" && host != options_.bind) {
      response.status = 403;
      response.set_content("Refused: the Host header names neither this server nor localhost\n",
                           "text/plain; charset=utf-8");
      return;
    }
    if (refused_path(request.target, request.path)) return not_found();
    const std::string& path = request.path;
    if (path == "/style.css") {
      response.set_content(std::string(WikiSite::stylesheet()), "text/css; charset=utf-8");
      return;
    }
    std::string branch = default_branch_;
    if (request.has_param("branch")) branch = request.get_param_value("branch");
    try {
      std::lock_guard<std::mutex> hold(mutex_);
      Open* open = site_for(branch);
      if (open == nullptr) return not_found();
      WikiSite* site = open->site.get();
      const bool page = path.rfind("/pages/", 0) == 0 && path.size() > 12 &&
                        path.compare(path.size() - 5, 5, ".html") == 0;
      const std::string page_id = page ? path.substr(7, path.size() - 12) : std::string();
      site->load_if_changed(open->watched, page_id);
      std::optional<std::string> html;
      if (path == "/" || path == "/index.html") {
        html = site->index_html();
      } else if (path == "/history.html") {
        html = site->history_html();
      } else if (path == "/tree.html") {
        html = site->tree_page_html();
      } else if (page) {
        html = site->page_html(page_id);
      } else if (path.rfind("/source/", 0) == 0 && path.size() > 13 &&
                 path.compare(path.size() - 5, 5, ".html") == 0) {
        std::optional<LineRange> range;
        if (request.has_param("lines")) range = lines_query(request.get_param_value("lines"));
        html = site->source_html(path.substr(8, path.size() - 13), range);
      }
      if (!html) return not_found();
      response.set_content(*html, "text/html; charset=utf-8");
    } catch (const std::exception& error) {
      response.status = 500;
      response.set_content(error_line(error) + "\n", "text/plain; charset=utf-8");
    }
  }

  // REQUIRES: mutex_ is held. nullptr for a branch the store does not hold.
  struct Open;
  Open* site_for(const std::string& branch) {
    const auto known = sites_.find(branch);
    if (known != sites_.end()) return &known->second;
    try {
      wiki::check_branch_name(branch);
    } catch (const wiki::ValueError&) {
      return nullptr;
    }
    const std::vector<std::string> branches = store_branches();
    if (branch != default_branch_ &&
        std::find(branches.begin(), branches.end(), branch) == branches.end()) {
      return nullptr;
    }
    Open open;
    wiki::WikiGeneratorOptions generator_options;
    generator_options.progress = false;
    open.generator = std::make_unique<wiki::WikiGenerator>(
        options_.common.repo, branch,
        wiki::orchestrator::open_store(store_url_, fs::absolute(options_.common.repo)),
        std::move(generator_options));
    SiteLinks links;
    if (branch != default_branch_) links.query = "?branch=" + url_path(branch);
    open.site = std::make_unique<WikiSite>(*open.generator, links, branches);
    open.watched = watched_files(branch);
    return &sites_.emplace(branch, std::move(open)).first->second;
  }

  // What a view of `branch` is read from besides the indexed files, checked
  // at every request (see WikiSite::load_if_changed), when all of it is on
  // this machine: the saved bodies' folder too, whose time a body replaced
  // by a rename changes. Empty (read everything at every request) for a
  // store that other machines write, or a folder outside git, whose file
  // list only a walk can tell.
  std::vector<fs::path> watched_files(const std::string& branch) const {
    if (store_url_.kind != wiki::orchestrator::StoreKind::Sqlite) return {};
    const fs::path root = fs::absolute(options_.common.repo);
    fs::path git = root / ".git";
    std::error_code error;
    if (fs::is_regular_file(git, error)) {
      // A linked work tree: ".git" names the folder that holds its index.
      std::ifstream pointer(git);
      std::string line;
      std::getline(pointer, line);
      if (line.rfind("gitdir: ", 0) != 0) return {};
      git = fs::path(line.substr(8));
      if (git.is_relative()) git = root / git;
    } else if (!fs::is_directory(git, error)) {
      return {};
    }
    const fs::path store = store_url_.target.empty() ? wiki::SqliteWikiStore::default_path(root)
                                                     : fs::path(store_url_.target);
    return {git / "index",
            git / "HEAD",
            wiki::memory_dir(root) / "steering.md",
            store,
            store.string() + "-wal",
            wiki::wiki_dir_of(root, branch) / wiki::_PLAN_LOG_NAME,
            wiki::wiki_dir_of(root, branch) / "pages"};
  }

  // The branches with a wiki folder beside the default one: each build
  // logs there, so a branch that was ever planned has one.
  std::vector<std::string> store_branches() const {
    std::vector<std::string> branches{default_branch_};
    const fs::path memory = wiki::memory_dir(fs::absolute(options_.common.repo));
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(memory, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
      if (it.depth() > 4 || it->is_symlink(error)) {
        it.disable_recursion_pending();
        continue;
      }
      if (it->path().filename() != wiki::_PLAN_LOG_NAME) continue;
      const std::string branch = it->path().parent_path().lexically_relative(memory).string();
      try {
        wiki::check_branch_name(branch);
      } catch (const wiki::ValueError&) {
        continue;
      }
      if (branch != default_branch_) branches.push_back(branch);
    }
    std::sort(branches.begin() + 1, branches.end());
    return branches;
  }

  struct Open {
    std::unique_ptr<wiki::WikiGenerator> generator;
    std::unique_ptr<WikiSite> site;
    std::vector<fs::path> watched;
  };

  ServeOptions options_;
  std::string default_branch_;
  wiki::orchestrator::StoreUrl store_url_;
  int port_ = 0;
  std::mutex mutex_;
  std::map<std::string, Open> sites_;
};

}  // namespace

Command add_serve_command(CLI::App& app) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App* command = app.add_subcommand(
      "serve", "Serve the wiki to a browser, read-only, on the loopback address");
  command->add_option("--port", options->port, "TCP port (0: one the system picks)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command
      ->add_option("--bind", options->bind,
                   "Address to listen on; anything but loopback makes the wiki visible to that "
                   "network")
      ->capture_default_str();
  command->add_flag("--open", options->open, "Open the wiki in the desktop's browser");
  add_common_options(*command, options->common);
  return Command{command, [options] {
                   // Blocked before any thread starts, so only the waiter takes them.
                   sigset_t signals;
                   sigemptyset(&signals);
                   sigaddset(&signals, SIGINT);
                   sigaddset(&signals, SIGTERM);
                   pthread_sigmask(SIG_BLOCK, &signals, nullptr);
                   return run_guarded(
                       [&] {
                         Server server(*options);
                         server.run();
                         return 0;
                       },
                       std::cerr);
                 }};
}

}  // namespace kodrune_cli
