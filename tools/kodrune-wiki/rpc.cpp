// The rpc loop: parse, dispatch, answer. A bad line is answered with an error
// and the loop goes on.
#include "kodrune-wiki/rpc.hpp"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

Json error_response(const Json& id, std::string_view kind, std::string_view message) {
  Json response = Json::object();
  response["id"] = id;
  response["error"] = Json::object();
  response["error"]["kind"] = kind;
  response["error"]["message"] = message;
  return response;
}

// The protocol's kinds; anything the library raises outside them (a store
// failure, a file-system error) is an "os_error".
std::string_view protocol_kind(std::string_view kind) {
  if (kind == "key_error" || kind == "type_error" || kind == "value_error" ||
      kind == "invalid_request") {
    return kind;
  }
  return "os_error";
}

std::string dump(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::string rpc_respond(const OpTable& ops, std::string_view line) {
  Json request;
  try {
    request = wiki::parse_json(line);
  } catch (const wiki::ValueError& e) {
    return dump(
        error_response(nullptr, "invalid_request", std::string("malformed JSON: ") + e.what()));
  }
  if (!request.is_object()) {
    return dump(error_response(nullptr, "invalid_request", "a request must be a JSON object"));
  }
  const Json id = request.contains("id") ? request["id"] : Json(nullptr);
  const Json* op = wiki::find_value(request, "op");
  if (op == nullptr || !op->is_string()) {
    return dump(error_response(id, "invalid_request", "a request needs \"op\" as text"));
  }
  auto found = ops.find(op->get_ref<const std::string&>());
  if (found == ops.end()) {
    return dump(error_response(id, "invalid_request", "unknown op: " + op->get<std::string>()));
  }
  const auto args = request.find("args");
  if (args == request.end() || !args->is_object()) {
    return dump(error_response(id, "invalid_request", "a request needs \"args\" as an object"));
  }
  try {
    RpcResult result = found->second(*args);
    if (result.json_text) {
      // The same bytes as dumping {"id": ..., "result": ...} would give.
      std::string line = "{\"id\":" + dump(id) + ",\"result\":";
      line += *result.json_text;
      line += '}';
      return line;
    }
    Json response = Json::object();
    response["id"] = id;
    response["result"] = std::move(result.value);
    return dump(response);
  } catch (const InvalidRequest& e) {
    return dump(error_response(id, "invalid_request", e.what()));
  } catch (const wiki::Error& e) {
    return dump(error_response(id, protocol_kind(e.kind()), e.what()));
  } catch (const Json::type_error& e) {
    return dump(error_response(id, "type_error", e.what()));
  } catch (const Json::exception& e) {
    return dump(error_response(id, "value_error", e.what()));
  } catch (const std::exception& e) {
    return dump(error_response(id, "os_error", e.what()));
  }
}

namespace {

// One line's answer to the output, taking what the line held.
bool serve_line(const OpTable& ops, std::string_view line, std::string& pending) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (line.find_first_not_of(" \t") == std::string_view::npos) return false;
  pending += rpc_respond(ops, line);
  pending += '\n';
  return true;
}

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t wrote = ::write(fd, bytes.data(), bytes.size());
    if (wrote < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(wrote));
  }
  return true;
}

}  // namespace

int serve_rpc(const OpTable& ops, std::istream& in, std::ostream& out) {
  std::string line;
  std::string answer;
  while (std::getline(in, line)) {
    answer.clear();
    if (!serve_line(ops, line, answer)) continue;
    out << answer;
    out.flush();
  }
  return 0;
}

int serve_rpc_fd(const OpTable& ops, int in, int out) {
  // Input comes in large blocks and is cut into lines here; a line longer
  // than a block grows the buffer. The answers to the lines of a block are
  // written together before the next read, so a client that sends a request
  // and waits gets its answer at once, and a piped batch takes few writes.
  constexpr std::size_t kBlock = std::size_t{1} << 20;
  std::string buffer;
  std::string pending;
  std::size_t start = 0;  // first byte of the unserved part of `buffer`
  bool at_end = false;
  while (!at_end) {
    if (start > 0 && start * 2 >= buffer.size()) {
      buffer.erase(0, start);
      start = 0;
    }
    const std::size_t filled = buffer.size();
    buffer.resize(filled + std::max(kBlock, filled / 2));
    ssize_t got;
    do {
      got = ::read(in, buffer.data() + filled, buffer.size() - filled);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
      std::perror("rpc: cannot read the input");
      return 1;
    }
    buffer.resize(filled + static_cast<std::size_t>(got));
    at_end = got == 0;
    // Lines completed by this read.
    std::size_t search = std::max(start, filled);
    for (std::size_t newline; (newline = buffer.find('\n', search)) != std::string::npos;) {
      serve_line(ops, std::string_view(buffer).substr(start, newline - start), pending);
      start = newline + 1;
      search = start;
    }
    if (at_end && start < buffer.size()) {
      serve_line(ops, std::string_view(buffer).substr(start), pending);
      start = buffer.size();
    }
    if (!pending.empty()) {
      if (!write_all(out, pending)) {
        std::perror("rpc: cannot write the answers");
        return 1;
      }
      pending.clear();
    }
  }
  return 0;
}

const Json& require_arg(const Json& args, std::string_view key) {
  const Json* value = wiki::find_value(args, key);
  if (value == nullptr) throw InvalidRequest("missing args: " + std::string(key));
  return *value;
}

Json& require_arg(Json& args, std::string_view key) {
  return const_cast<Json&>(require_arg(std::as_const(args), key));
}

const Json* optional_arg(const Json& args, std::string_view key) {
  const Json* value = wiki::find_value(args, key);
  return value == nullptr || value->is_null() ? nullptr : value;
}

namespace {

// Rows copied from a request's "existing", or moved out of it.
template <typename Value>
wiki::Existing existing_rows(Value& value) {
  if (!value.is_object()) throw InvalidRequest("\"existing\" must be an object of page id to row");
  wiki::Existing existing;
  existing.reserve(value.size());
  for (auto it = value.begin(); it != value.end(); ++it) {
    if (!it.value().is_object()) {
      throw InvalidRequest("the row of \"" + it.key() + "\" in \"existing\" must be an object");
    }
    if constexpr (std::is_const_v<Value>) {
      existing.emplace(it.key(), it.value());
    } else {
      existing.emplace(it.key(), std::move(it.value()));
    }
  }
  return existing;
}

}  // namespace

wiki::Existing existing_from_json(const Json& value) { return existing_rows(value); }
wiki::Existing existing_from_json(Json&& value) { return existing_rows(value); }

namespace {

template <typename Value>
wiki::PathSet path_set(Value& value, std::string_view what) {
  if (!value.is_array())
    throw InvalidRequest("\"" + std::string(what) + "\" must be a list of paths");
  wiki::PathSet paths;
  paths.reserve(value.size());
  for (auto& item : value) {
    if (!item.is_string())
      throw InvalidRequest("\"" + std::string(what) + "\" must hold text only");
    if constexpr (std::is_const_v<Value>) {
      paths.insert(item.template get_ref<const std::string&>());
    } else {
      paths.insert(std::move(item.template get_ref<std::string&>()));
    }
  }
  return paths;
}

}  // namespace

wiki::PathSet paths_from_json(const Json& value, std::string_view what) {
  return path_set(value, what);
}
wiki::PathSet paths_from_json(Json&& value, std::string_view what) { return path_set(value, what); }

wiki::Amendments records_from_json(const Json& value, std::string_view what) {
  if (!value.is_array())
    throw InvalidRequest("\"" + std::string(what) + "\" must be a list of records");
  wiki::Amendments records;
  records.reserve(value.size());
  for (const auto& item : value) records.push_back(item);
  return records;
}

bool bool_arg(const Json& args, std::string_view key) {
  return !wiki::is_empty(require_arg(args, key));
}

bool bool_arg(const Json& args, std::string_view key, bool fallback) {
  const Json* value = wiki::find_value(args, key);
  if (value == nullptr) return fallback;
  return !wiki::is_empty(*value);
}

wiki::PlanList plans_arg(const Json& args, std::string_view key) {
  const Json& value = require_arg(args, key);
  if (!value.is_array())
    throw InvalidRequest("\"" + std::string(key) + "\" must be a list of plans");
  return wiki::plans_from_json(value);
}

std::vector<std::string> texts_arg(const Json& args, std::string_view key) {
  const Json& value = require_arg(args, key);
  const std::string what = "\"" + std::string(key) + "\"";
  if (!value.is_array()) throw InvalidRequest(what + " must be a list of page ids");
  std::vector<std::string> texts;
  texts.reserve(value.size());
  for (const auto& item : value) {
    if (!item.is_string()) throw InvalidRequest(what + " must hold text only");
    texts.push_back(item.get<std::string>());
  }
  return texts;
}

const std::string& body_arg(const Json& args) {
  const Json& body = require_arg(args, "body");
  if (!body.is_string()) {
    throw wiki::TypeError(std::string("\"body\" must be text, not ") + body.type_name());
  }
  return body.get_ref<const std::string&>();
}

namespace {

class WarningSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<std::string> messages;

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    if (message.level >= spdlog::level::warn) {
      messages.emplace_back(message.payload.data(), message.payload.size());
    }
  }
  void flush_() override {}
};

}  // namespace

struct CapturedWarnings::Capture {
  std::shared_ptr<spdlog::logger> logger = wiki::plan_record_logger();
  std::shared_ptr<WarningSink> sink = std::make_shared<WarningSink>();
};

CapturedWarnings::CapturedWarnings() : capture_(std::make_unique<Capture>()) {
  capture_->logger->sinks().push_back(capture_->sink);
}

CapturedWarnings::~CapturedWarnings() {
  auto& sinks = capture_->logger->sinks();
  sinks.erase(std::remove(sinks.begin(), sinks.end(), capture_->sink), sinks.end());
}

const std::vector<std::string>& CapturedWarnings::messages() const {
  return capture_->sink->messages;
}

}  // namespace kodrune_cli
