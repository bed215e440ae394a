// The MCP protocol loop: a reader thread that parses lines and answers what
// needs no service (parse errors, malformed messages, ping, cancellation),
// and the serving thread that runs requests in order.
#include "kodrune-wiki/mcp/mcp_server.hpp"

#include <utf8.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>

#include "kodrune-wiki/mcp/messages.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace kodrune_cli::mcp {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

// Revisions before this one have no structuredContent: their clients get the
// structured result as JSON text as well.
constexpr std::string_view kStructuredContentSince = "2025-06-18";

class Session {
 public:
  Session(std::ostream& out, Service& service, const ServerInfo& info)
      : out_(out),
        service_(service),
        info_(info),
        protocol_version_(supported_protocol_versions().front()) {}

  void read_all(std::istream& in) {
    std::string line;
    bool too_long = false;
    while (in.rdbuf() != nullptr && read_line(*in.rdbuf(), line, too_long)) {
      try {
        if (too_long) {
          send(error_message(nullptr, PARSE_ERROR,
                             "parse error: a message longer than " +
                                 std::to_string(MAX_MESSAGE_BYTES >> 20) + " MiB"));
        } else if (line.find_first_not_of(" \t") != std::string::npos) {
          on_line(line);
        }
      } catch (const std::exception& e) {
        send(error_message(nullptr, INTERNAL_ERROR, e.what()));
      }
    }
    std::lock_guard lock(queue_mutex_);
    input_closed_ = true;
    queue_ready_.notify_all();
  }

  void serve_requests() {
    while (true) {
      Json request;
      {
        std::unique_lock lock(queue_mutex_);
        queue_ready_.wait(lock, [&] { return !queue_.empty() || input_closed_; });
        if (queue_.empty()) return;
        request = std::move(queue_.front());
        queue_.pop_front();
        running_ = request.at("id");
        running_cancelled_ = false;
      }
      Json response = handle(request);
      bool cancelled = false;
      {
        std::lock_guard lock(queue_mutex_);
        cancelled = running_cancelled_;
        running_ = nullptr;
      }
      if (!cancelled) send(response);
    }
  }

 private:
  void send(const Json& message) {
    const std::string text = wire_text(message);
    std::lock_guard lock(out_mutex_);
    out_ << text << '\n';
    out_.flush();
  }

  void on_line(std::string_view line) {
    Json message;
    try {
      message = parse_message(line);
    } catch (const wiki::ValueError& e) {
      send(error_message(nullptr, PARSE_ERROR, std::string("parse error: ") + e.what()));
      return;
    }
    if (message.is_array()) {
      send(error_message(nullptr, INVALID_REQUEST,
                         "a batch (JSON array) is not served: send one message per line"));
      return;
    }
    if (!message.is_object()) {
      send(error_message(nullptr, INVALID_REQUEST, "a message must be a JSON object"));
      return;
    }
    const Json* id = wiki::find_value(message, "id");
    const Json* method = wiki::find_value(message, "method");
    if (method == nullptr) {
      // A response: this server sends no requests, so there is nothing it answers.
      if (message.contains("result") || message.contains("error")) return;
      send(error_message(id, INVALID_REQUEST, "a message needs \"method\""));
      return;
    }
    if (id == nullptr) {
      on_notification(message);
      return;
    }
    if (!valid_id(id)) {
      send(error_message(nullptr, INVALID_REQUEST, "a request id must be a string or an integer"));
      return;
    }
    const Json* version = wiki::find_value(message, "jsonrpc");
    if (version == nullptr || *version != "2.0") {
      send(error_message(id, INVALID_REQUEST, "\"jsonrpc\" must be \"2.0\""));
      return;
    }
    if (!method->is_string()) {
      send(error_message(id, INVALID_REQUEST, "\"method\" must be a string"));
      return;
    }
    const Json* params = wiki::find_value(message, "params");
    if (params != nullptr && !params->is_object()) {
      send(error_message(id, INVALID_PARAMS, "params must be an object"));
      return;
    }
    if (*method == "ping") {
      send(result_message(*id, Json::object()));
      return;
    }
    std::lock_guard lock(queue_mutex_);
    queue_.push_back(std::move(message));
    queue_ready_.notify_all();
  }

  void on_notification(const Json& message) {
    const Json* method = wiki::find_value(message, "method");
    if (*method != "notifications/cancelled") return;  // initialized and the rest need nothing
    const Json* params = wiki::find_value(message, "params");
    const Json* request_id = params == nullptr ? nullptr : wiki::find_value(*params, "requestId");
    if (!valid_id(request_id)) return;
    std::lock_guard lock(queue_mutex_);
    const auto waiting = std::find_if(queue_.begin(), queue_.end(), [&](const Json& request) {
      return request.at("id") == *request_id;
    });
    if (waiting != queue_.end()) {
      queue_.erase(waiting);
    } else if (running_ == *request_id) {
      running_cancelled_ = true;
    }
    // Anything else was answered already, or never sent: nothing to do.
  }

  Json handle(const Json& request) {
    const Json& id = request.at("id");
    const std::string& method = request.at("method").get_ref<const std::string&>();
    const Json* given = wiki::find_value(request, "params");
    const Json params = given == nullptr ? Json::object() : *given;
    try {
      return result_message(id, dispatch(method, params));
    } catch (const RpcError& e) {
      return error_message(&id, e.code(), e.what(), e.data());
    } catch (const std::exception& e) {
      return error_message(&id, INTERNAL_ERROR, e.what());
    }
  }

  Json dispatch(const std::string& method, const Json& params) {
    if (method == "initialize") return initialize(params);
    if (method == "tools/list") {
      Json result = Json::object();
      result["tools"] = service_.tools();
      return result;
    }
    if (method == "tools/call") return call_tool(params);
    if (method == "resources/list") {
      Json result = Json::object();
      result["resources"] = service_.resources();
      return result;
    }
    if (method == "resources/templates/list") {
      Json result = Json::object();
      result["resourceTemplates"] = service_.resource_templates();
      return result;
    }
    if (method == "resources/read") return service_.read_resource(text_param(params, "uri"));
    throw RpcError(METHOD_NOT_FOUND, "unknown method: " + wiki::util::cut_input(method));
  }

  Json initialize(const Json& params) {
    const std::string& asked = text_param(params, "protocolVersion");
    const auto& versions = supported_protocol_versions();
    protocol_version_ =
        std::find(versions.begin(), versions.end(), asked) != versions.end() ? asked : versions[0];
    Json result = Json::object();
    result["protocolVersion"] = protocol_version_;
    result["capabilities"] = Json::object();
    result["capabilities"]["tools"] = {{"listChanged", false}};
    result["capabilities"]["resources"] = {{"subscribe", false}, {"listChanged", false}};
    result["serverInfo"] = {
        {"name", info_.name}, {"title", info_.title}, {"version", info_.version}};
    result["instructions"] = info_.instructions;
    return result;
  }

  Json call_tool(const Json& params) {
    const std::string& name = text_param(params, "name");
    const Json* tool = nullptr;
    for (const auto& candidate : service_.tools()) {
      if (candidate.at("name") == name) tool = &candidate;
    }
    if (tool == nullptr)
      throw RpcError(INVALID_PARAMS, "unknown tool: " + wiki::util::cut_input(name));
    const Json* given = wiki::find_value(params, "arguments");
    const Json arguments = given == nullptr || given->is_null() ? Json::object() : *given;
    if (auto mismatch = schema_mismatch(tool->at("inputSchema"), arguments, "arguments")) {
      throw RpcError(INVALID_PARAMS, "invalid arguments for tool " + wiki::util::cut_input(name) +
                                         ": " + *mismatch);
    }
    Json result = service_.call_tool(name, arguments, progress_for(params));
    if (protocol_version_ < kStructuredContentSince && result.contains("structuredContent")) {
      // Resource links came with structured content: older clients get neither.
      Json content = Json::array();
      for (auto& item : result["content"]) {
        if (item.value("type", "") != "resource_link") content.push_back(std::move(item));
      }
      content.push_back({{"type", "text"}, {"text", wire_text(result.at("structuredContent"))}});
      result["content"] = std::move(content);
    }
    return result;
  }

  ProgressFn progress_for(const Json& params) {
    const Json* meta = wiki::find_value(params, "_meta");
    const Json* token = meta == nullptr ? nullptr : wiki::find_value(*meta, "progressToken");
    if (!valid_id(token)) return [](double, double, const std::string&) {};
    // The progress a client sees must grow with each notification.
    auto last = std::make_shared<std::pair<std::mutex, double>>();
    last->second = -1;
    return [this, token = *token, last](double progress, double total, const std::string& text) {
      {
        std::lock_guard lock(last->first);
        if (progress <= last->second) return;
        last->second = progress;
      }
      Json message = Json::object();
      message["jsonrpc"] = "2.0";
      message["method"] = "notifications/progress";
      message["params"] = {
          {"progressToken", token}, {"progress", progress}, {"total", total}, {"message", text}};
      send(message);
    };
  }

  std::ostream& out_;
  Service& service_;
  const ServerInfo& info_;
  std::string protocol_version_;
  std::mutex out_mutex_;
  std::mutex queue_mutex_;
  std::condition_variable queue_ready_;
  std::deque<Json> queue_;
  bool input_closed_ = false;
  Json running_;  // the id of the request being served, null between requests
  bool running_cancelled_ = false;
};

}  // namespace

const std::vector<std::string>& supported_protocol_versions() {
  static const std::vector<std::string> versions = {"2025-11-25", "2025-06-18", "2025-03-26",
                                                    "2024-11-05", "2024-10-07"};
  return versions;
}

int serve(std::istream& in, std::ostream& out, Service& service, const ServerInfo& info) {
  Session session(out, service, info);
  std::thread reader([&] { session.read_all(in); });
  session.serve_requests();
  reader.join();
  return 0;
}

}  // namespace kodrune_cli::mcp
