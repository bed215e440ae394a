// What must hold of the rpc harness's answer to any line, shared by the fuzz
// target and the test that replays its saved corpus: one line of JSON, an
// object with "id" and either "result" or an "error" whose kind is one of the
// protocol's, and the same bytes whether an op read its args from the
// request's document or from its value. A line that crashes the process
// fails before any check runs.
#pragma once

#include <string>
#include <string_view>

#include "harness/harness_ops.hpp"

namespace kodrune_fuzz {

// "" when the answer to `line` is well formed, else what was wrong.
inline std::string rpc_check_failure(std::string_view line) {
  using kodrune_cli::rpc::Json;
  // The one op that writes files, at a path the request names.
  if (line.find("append_plan_log") != std::string_view::npos) return "";
  const kodrune_cli::rpc::OpTable& ops = kodrune_harness::harness_rpc_ops();
  const std::string answer = kodrune_cli::rpc::rpc_respond(ops, line);
  if (answer.find('\n') != std::string::npos) return "the answer spans lines: " + answer;
  static const kodrune_cli::rpc::OpTable from_values = [&] {
    kodrune_cli::rpc::OpTable table;
    for (const auto& [name, handler] : ops) table.emplace(name, handler.from_values);
    return table;
  }();
  if (const std::string other = kodrune_cli::rpc::rpc_respond(from_values, line); other != answer) {
    return "read from the document: " + answer + "\nread from the value: " + other;
  }
  Json parsed;
  try {
    parsed = Json::parse(answer);
  } catch (const Json::exception& e) {
    return std::string("the answer is not JSON: ") + e.what();
  }
  if (!parsed.is_object() || !parsed.contains("id")) return "the answer lacks an id: " + answer;
  if (parsed.contains("result") == parsed.contains("error")) {
    return "the answer needs exactly one of result and error: " + answer;
  }
  if (parsed.contains("error")) {
    const Json& kind = parsed["error"].value("kind", Json());
    static constexpr std::string_view kKinds[] = {"key_error", "type_error", "value_error",
                                                  "invalid_request", "os_error"};
    for (const auto known : kKinds) {
      if (kind.is_string() && kind.get<std::string>() == known) return "";
    }
    return "the error kind is not the protocol's: " + answer;
  }
  return "";
}

}  // namespace kodrune_fuzz
