// The rpc loop: the plan of record over JSON Lines. One request object per
// input line, one compact response per output line, flushed after each. The
// loop serves whichever op table it is given: the product's
// (`kodrune-wiki rpc`, ops over the branch's real store) or the test
// harness's (tests/harness, store-side ops on a recording host).
#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/util/json_document.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace kodrune_cli::rpc {

using zenthar_kodrune::workers::wiki::Json;

// What an op answers: the "result" value, or that value's compact JSON text
// already written, for an answer too large to build as a value first.
struct RpcResult {
  RpcResult(Json result) : value(std::move(result)) {}  // NOLINT: ops return a Json
  static RpcResult text(std::string json_text) {
    RpcResult result(nullptr);
    result.json_text = std::move(json_text);
    return result;
  }
  Json value;
  std::optional<std::string> json_text;
  // What the answer was made from, freed only once the answer has been sent:
  // a large request's values take longer to free than its answer to send.
  std::shared_ptr<const void> keep_until_sent;
};

// An op takes the request's "args" object and returns the "result" value.
// The args are the request's own and are dropped after the op, so an op may
// take large values out of them rather than copy them.
using RpcOp = std::function<RpcResult(Json& args)>;

// The same op reading its args straight from the request's document, for
// requests too large to build as values first: it takes only the values it
// needs, into its own types. It must answer exactly as the op over values
// does; where the document cannot stand for the values it throws
// NotReadAsParseJson, and the loop gives the op the values instead.
using RpcDocumentOp = std::function<RpcResult(simdjson::dom::object args)>;

struct RpcHandler {
  RpcHandler(RpcOp op) : from_values(std::move(op)) {}  // NOLINT: tables list plain ops
  RpcHandler(RpcOp op, RpcDocumentOp document_op)
      : from_values(std::move(op)), from_document(std::move(document_op)) {}
  RpcOp from_values;
  RpcDocumentOp from_document;  // empty for most ops
};
using OpTable = std::map<std::string, RpcHandler, std::less<>>;

// Thrown by ops for a request they cannot serve (missing args, bad shapes);
// answered with the kind "invalid_request".
struct InvalidRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The component's pure functions, served alike by the product and the
// harness: "pin_plan", "drift_signal", "section_map".
void register_component_ops(OpTable& ops);

// Opens the orchestrator of the branch the product's store-side ops run on.
using GeneratorOpener =
    std::function<std::unique_ptr<zenthar_kodrune::workers::wiki::WikiGenerator>()>;

// The ops of `kodrune-wiki rpc`: the component's functions, and the
// store-side operations on the real store of the orchestrator `open`
// gives, opened on the first op that needs it (a failure to open is that
// op's error; the next such op tries again). See the README for the table.
OpTable product_rpc_ops(GeneratorOpener open);

// One answer line, and what to free once it has been sent.
struct RpcAnswer {
  std::string line;
  std::shared_ptr<const void> keep_until_sent;
};

// Answers one request line from `ops` (never throws for bad input). With
// `padded`, the simdjson::SIMDJSON_PADDING bytes after the line are
// readable and the line is parsed where it lies.
RpcAnswer rpc_answer(const OpTable& ops, std::string_view line, bool padded = false);
// The same, freeing everything before it returns.
std::string rpc_respond(const OpTable& ops, std::string_view line);

// Serves lines from `in` until end of input. Returns 0.
int serve_rpc(const OpTable& ops, std::istream& in, std::ostream& out);
// The same over file descriptors, with reads and writes in large blocks.
// Returns 0, or 1 when reading or writing failed (said on stderr).
int serve_rpc_fd(const OpTable& ops, int in, int out);

// Collects what the plan of record's logger warns while it is alive (the
// log ops answer with those warnings), also when the call throws.
class CapturedWarnings {
 public:
  CapturedWarnings();
  ~CapturedWarnings();
  CapturedWarnings(const CapturedWarnings&) = delete;
  CapturedWarnings& operator=(const CapturedWarnings&) = delete;

  // Each warning's message, in the order logged.
  const std::vector<std::string>& messages() const;

 private:
  struct Capture;
  std::unique_ptr<Capture> capture_;
};

// ---- argument readers shared by the ops ----

// args[key], or InvalidRequest "missing args: KEY".
const Json& require_arg(const Json& args, std::string_view key);
Json& require_arg(Json& args, std::string_view key);
// args[key] when present and not null, else nullptr.
const Json* optional_arg(const Json& args, std::string_view key);
Json* optional_arg(Json& args, std::string_view key);
// An "existing" object -> Existing (key order kept); rows must be objects.
zenthar_kodrune::workers::wiki::Existing existing_from_json(const Json& value);
// The same, taking the rows out of `value` instead of copying them.
zenthar_kodrune::workers::wiki::Existing existing_from_json(Json&& value);
// A "live_paths" list -> PathSet.
zenthar_kodrune::workers::wiki::PathSet paths_from_json(const Json& value, std::string_view what);
// The same, taking the paths out of `value` instead of copying them.
zenthar_kodrune::workers::wiki::PathSet paths_from_json(Json&& value, std::string_view what);
// A list of amendment records.
zenthar_kodrune::workers::wiki::Amendments records_from_json(const Json& value,
                                                             std::string_view what);
// A required boolean argument; "empty" values read as false.
bool bool_arg(const Json& args, std::string_view key);
// A boolean argument the protocol gives a default.
bool bool_arg(const Json& args, std::string_view key, bool fallback);
// A list of plans under `key`.
zenthar_kodrune::workers::wiki::PlanList plans_arg(const Json& args, std::string_view key);
// The list of plans `value` found under `key`.
zenthar_kodrune::workers::wiki::PlanList plan_list_from_json(const Json& value,
                                                             std::string_view key);
// A list of texts under `key` (page ids).
std::vector<std::string> texts_arg(const Json& args, std::string_view key);
// The text under "body"; a value of another type is a TypeError.
const std::string& body_arg(const Json& args);

// ---- the same readers over a request's document ----
// Each reads the common shapes itself and hands any other value, built as
// a Json value, to its twin above: the errors, and the readings of rarer
// shapes, are the twin's own. Where a key repeats, the last value counts,
// as in the value parse_json builds.

// The value under `key`, or nullptr.
std::optional<simdjson::dom::element> find_arg(simdjson::dom::object args, std::string_view key);
simdjson::dom::element require_arg(simdjson::dom::object args, std::string_view key);
zenthar_kodrune::workers::wiki::PlanList plan_list_from_document(simdjson::dom::element value,
                                                                 std::string_view key);
// Rows keep only the columns reconciliation reads: a large branch's rows
// are built once, at a fraction of their size.
zenthar_kodrune::workers::wiki::Existing existing_from_document(simdjson::dom::element value);
zenthar_kodrune::workers::wiki::PathSet paths_from_document(simdjson::dom::element value,
                                                            std::string_view what);
bool bool_arg(simdjson::dom::object args, std::string_view key);
bool bool_arg(simdjson::dom::object args, std::string_view key, bool fallback);

}  // namespace kodrune_cli::rpc
