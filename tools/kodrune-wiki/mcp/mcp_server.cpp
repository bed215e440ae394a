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

#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace kodrune_cli::mcp {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

// Revisions before this one have no structuredContent: their clients get the
// structured result as JSON text as well.
constexpr std::string_view kStructuredContentSince = "2025-06-18";

std::string dump(const Json& value) {
  // Text from the repository or a client may hold bytes that are not UTF-8;
  // they go out as U+FFFD rather than failing the answer.
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// ---- reading messages ----

// One line of `in` without its line feed (and carriage return). False at the
// end of input. A line longer than MAX_MESSAGE_BYTES is read to its end but
// not kept: `too_long` is set and `line` holds its start.
bool read_line(std::streambuf& in, std::string& line, bool& too_long) {
  line.clear();
  too_long = false;
  bool any = false;
  for (int c = in.sbumpc(); c != std::char_traits<char>::eof(); c = in.sbumpc()) {
    any = true;
    if (c == '\n') break;
    if (line.size() < MAX_MESSAGE_BYTES) {
      line.push_back(static_cast<char>(c));
    } else {
      too_long = true;
    }
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return any;
}

void append_utf8(std::string& out, std::uint32_t code_point) {
  // Also for a lone surrogate, which then stays the invalid bytes it was.
  if (code_point < 0x80) {
    out.push_back(static_cast<char>(code_point));
  } else if (code_point < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (code_point >> 6)));
    out.push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else if (code_point < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (code_point >> 12)));
    out.push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (code_point >> 18)));
    out.push_back(static_cast<char>(0x80 | ((code_point >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  }
}

std::optional<std::uint32_t> hex4(std::string_view text, std::size_t at) {
  if (at + 4 > text.size()) return std::nullopt;
  std::uint32_t value = 0;
  for (std::size_t i = at; i < at + 4; ++i) {
    const char c = text[i];
    value <<= 4;
    if (c >= '0' && c <= '9') {
      value |= static_cast<std::uint32_t>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      value |= static_cast<std::uint32_t>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      value |= static_cast<std::uint32_t>(c - 'A' + 10);
    } else {
      return std::nullopt;
    }
  }
  return value;
}

// JSON text whose strings hold bytes that are not UTF-8 or escaped lone
// surrogates (what a JavaScript or Python client sends for a broken string),
// made parseable: such a string is written with U+FFFD for each bad unit, and
// its exact bytes are kept by its place among the text's strings (keys
// counted), to be put back once parsed. A tool then sees the text it was
// sent and refuses it by its own rules, as the command line would.
struct RepairedText {
  std::string text;
  std::map<std::size_t, std::string> raw;  // string ordinal -> its bytes
  std::size_t string_count = 0;
};

std::optional<RepairedText> repair_text(std::string_view line) {
  RepairedText out;
  out.text.reserve(line.size());
  std::size_t i = 0;
  while (i < line.size()) {
    if (line[i] != '"') {
      out.text.push_back(line[i++]);
      continue;
    }
    out.text.push_back(line[i++]);
    std::string raw;
    bool bad = false;
    bool closed = false;
    while (i < line.size()) {
      const char c = line[i];
      if (c == '"') {
        out.text.push_back(c);
        ++i;
        closed = true;
        break;
      }
      if (c == '\\') {
        if (i + 1 >= line.size()) return std::nullopt;
        const char e = line[i + 1];
        if (e != 'u') {
          static constexpr std::string_view kSimple = "\"\\/bfnrt";
          static constexpr std::string_view kMeaning = "\"\\/\b\f\n\r\t";
          const auto at = kSimple.find(e);
          if (at == std::string_view::npos) return std::nullopt;
          raw.push_back(kMeaning[at]);
          out.text.append(line.substr(i, 2));
          i += 2;
          continue;
        }
        const auto unit = hex4(line, i + 2);
        if (!unit) return std::nullopt;
        if (*unit >= 0xD800 && *unit <= 0xDBFF && line.size() >= i + 12 && line[i + 6] == '\\' &&
            line[i + 7] == 'u') {
          const auto low = hex4(line, i + 8);
          if (low && *low >= 0xDC00 && *low <= 0xDFFF) {
            append_utf8(raw, 0x10000 + ((*unit - 0xD800) << 10) + (*low - 0xDC00));
            out.text.append(line.substr(i, 12));
            i += 12;
            continue;
          }
        }
        if (*unit >= 0xD800 && *unit <= 0xDFFF) {
          bad = true;
          out.text.append("\\ufffd");
        } else {
          out.text.append(line.substr(i, 6));
        }
        append_utf8(raw, *unit);
        i += 6;
        continue;
      }
      // A run of plain bytes, checked as UTF-8; each bad byte becomes U+FFFD.
      std::size_t end = i;
      while (end < line.size() && line[end] != '"' && line[end] != '\\') ++end;
      std::string_view run = line.substr(i, end - i);
      raw.append(run);
      while (!run.empty()) {
        const std::size_t invalid = utf8::find_invalid(run);
        if (invalid == std::string_view::npos) {
          out.text.append(run);
          break;
        }
        bad = true;
        out.text.append(run.substr(0, invalid));
        out.text.append("\\ufffd");
        run.remove_prefix(invalid + 1);
      }
      i = end;
    }
    if (!closed) return std::nullopt;
    if (bad) out.raw.emplace(out.string_count, std::move(raw));
    ++out.string_count;
  }
  if (out.raw.empty()) return std::nullopt;
  return out;
}

// Visits the strings of `value` (object keys counted, not changed) in text
// order; `restore` puts the kept bytes back.
void walk_strings(Json& value, std::size_t& ordinal, const RepairedText* restore) {
  if (value.is_object()) {
    for (auto& [key, member] : value.items()) {
      ++ordinal;
      walk_strings(member, ordinal, restore);
    }
  } else if (value.is_array()) {
    for (auto& item : value) walk_strings(item, ordinal, restore);
  } else if (value.is_string()) {
    if (restore != nullptr) {
      const auto raw = restore->raw.find(ordinal);
      if (raw != restore->raw.end()) value = raw->second;
    }
    ++ordinal;
  }
}

Json parse_message(std::string_view line) {
  std::string error;
  try {
    return wiki::parse_json(line);
  } catch (const wiki::ValueError& e) {
    error = e.what();
  }
  // Whatever else is wrong, the error told is about the text as sent.
  const auto repaired = repair_text(line);
  if (!repaired) throw wiki::ValueError(error);
  Json message;
  try {
    message = wiki::parse_json(repaired->text);
  } catch (const wiki::ValueError&) {
    throw wiki::ValueError(error);
  }
  // Strings are matched to their place in the text by counting; a text with
  // repeated keys counts differently, and keeps the U+FFFD.
  std::size_t count = 0;
  walk_strings(message, count, nullptr);
  if (count == repaired->string_count) {
    std::size_t ordinal = 0;
    walk_strings(message, ordinal, &*repaired);
  }
  return message;
}

bool valid_id(const Json* id) {
  return id != nullptr && (id->is_string() || id->is_number_integer());
}

Json error_message(const Json* id, int code, const std::string& text, const Json& data = nullptr) {
  Json message = Json::object();
  message["jsonrpc"] = "2.0";
  // A message whose id cannot be read gets an answer without one.
  if (valid_id(id)) message["id"] = *id;
  message["error"] = Json::object();
  message["error"]["code"] = code;
  message["error"]["message"] = text;
  if (!data.is_null()) message["error"]["data"] = data;
  return message;
}

Json result_message(const Json& id, Json result) {
  Json message = Json::object();
  message["jsonrpc"] = "2.0";
  message["id"] = id;
  message["result"] = std::move(result);
  return message;
}

// The text of a string parameter, or INVALID_PARAMS naming it.
const std::string& text_param(const Json& params, std::string_view key) {
  const Json* value = wiki::find_value(params, key);
  if (value == nullptr || !value->is_string()) {
    throw RpcError(INVALID_PARAMS, "params." + std::string(key) + " must be a string");
  }
  return value->get_ref<const std::string&>();
}

// ---- the session ----

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
    const std::string text = dump(message);
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
    throw RpcError(METHOD_NOT_FOUND, "unknown method: " + wiki::cut_input(method));
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
    if (tool == nullptr) throw RpcError(INVALID_PARAMS, "unknown tool: " + wiki::cut_input(name));
    const Json* given = wiki::find_value(params, "arguments");
    const Json arguments = given == nullptr || given->is_null() ? Json::object() : *given;
    if (auto mismatch = schema_mismatch(tool->at("inputSchema"), arguments, "arguments")) {
      throw RpcError(INVALID_PARAMS,
                     "invalid arguments for tool " + wiki::cut_input(name) + ": " + *mismatch);
    }
    Json result = service_.call_tool(name, arguments, progress_for(params));
    if (protocol_version_ < kStructuredContentSince && result.contains("structuredContent")) {
      // Resource links came with structured content: older clients get neither.
      Json content = Json::array();
      for (auto& item : result["content"]) {
        if (item.value("type", "") != "resource_link") content.push_back(std::move(item));
      }
      content.push_back({{"type", "text"}, {"text", dump(result.at("structuredContent"))}});
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

// ---- schemas ----

bool is_integer(const Json& value) {
  if (value.is_number_integer()) return true;
  if (!value.is_number_float()) return false;
  const double number = value.get<double>();
  return std::isfinite(number) && std::trunc(number) == number;
}

bool has_type(const Json& value, const std::string& type) {
  if (type == "null") return value.is_null();
  if (type == "boolean") return value.is_boolean();
  if (type == "integer") return is_integer(value);
  if (type == "number") return value.is_number();
  if (type == "string") return value.is_string();
  if (type == "array") return value.is_array();
  if (type == "object") return value.is_object();
  return false;
}

std::string type_phrase(const std::string& type) {
  if (type == "null") return "null";
  if (type == "integer" || type == "array" || type == "object") return "an " + type;
  return "a " + type;
}

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

std::optional<std::string> schema_mismatch(const Json& schema, const Json& value,
                                           const std::string& where) {
  if (const Json* type = wiki::find_value(schema, "type")) {
    const std::vector<std::string> types = type->is_array()
                                               ? type->get<std::vector<std::string>>()
                                               : std::vector<std::string>{type->get<std::string>()};
    if (std::none_of(types.begin(), types.end(),
                     [&](const std::string& t) { return has_type(value, t); })) {
      std::string phrase;
      for (std::size_t i = 0; i < types.size(); ++i) {
        phrase += (i == 0 ? "" : " or ") + type_phrase(types[i]);
      }
      return where + " must be " + phrase;
    }
  }
  if (const Json* choices = wiki::find_value(schema, "enum")) {
    if (std::find(choices->begin(), choices->end(), value) == choices->end()) {
      std::string phrase;
      for (const auto& choice : *choices) phrase += (phrase.empty() ? "" : ", ") + dump(choice);
      return where + " must be one of " + phrase;
    }
  }
  if (const Json* minimum = wiki::find_value(schema, "minimum")) {
    if (value.is_number() && value.get<double>() < minimum->get<double>()) {
      return where + " must be at least " + dump(*minimum);
    }
  }
  if (value.is_object()) {
    if (const Json* required = wiki::find_value(schema, "required")) {
      for (const auto& key : *required) {
        if (!value.contains(key.get<std::string>())) {
          return where + " needs \"" + key.get<std::string>() + "\"";
        }
      }
    }
    const Json* properties = wiki::find_value(schema, "properties");
    const Json* additional = wiki::find_value(schema, "additionalProperties");
    for (const auto& [key, member] : value.items()) {
      const Json* property = properties == nullptr ? nullptr : wiki::find_value(*properties, key);
      if (property == nullptr && additional != nullptr && additional->is_boolean() &&
          !additional->get<bool>()) {
        return where + " has no member \"" + key + "\"";
      }
      const Json* member_schema =
          property != nullptr
              ? property
              : (additional != nullptr && additional->is_object() ? additional : nullptr);
      if (member_schema == nullptr) continue;
      if (auto mismatch = schema_mismatch(*member_schema, member, where + "." + key)) {
        return mismatch;
      }
    }
  }
  if (value.is_array()) {
    if (const Json* items = wiki::find_value(schema, "items")) {
      for (std::size_t i = 0; i < value.size(); ++i) {
        if (auto mismatch =
                schema_mismatch(*items, value[i], where + "[" + std::to_string(i) + "]")) {
          return mismatch;
        }
      }
    }
  }
  return std::nullopt;
}

}  // namespace kodrune_cli::mcp
