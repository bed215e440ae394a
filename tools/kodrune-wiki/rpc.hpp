// `kodrune-wiki rpc`: the plan of record over JSON Lines. One request object
// per input line, one compact response per output line, flushed after each.
#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace kodrune_cli {

using zenthar_kodrune::workers::wiki::Json;

// An op takes the request's "args" object and returns the "result" value.
using RpcOp = std::function<Json(const Json& args)>;
using OpTable = std::map<std::string, RpcOp, std::less<>>;

// Thrown by ops for a request they cannot serve (missing args, bad shapes);
// answered with the kind "invalid_request".
struct InvalidRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Ops by area; each area's file registers what it serves.
void register_reconcile_ops(OpTable& ops);
void register_audit_ops(OpTable& ops);
void register_store_ops(OpTable& ops);
void register_section_ops(OpTable& ops);

// Every op the loop serves.
const OpTable& rpc_ops();

// Answers one request line (never throws for bad input).
std::string rpc_respond(std::string_view line);

// Serves lines from `in` until end of input. Returns 0.
int serve_rpc(std::istream& in, std::ostream& out);
// The same over file descriptors, with reads and writes in large blocks.
// Returns 0, or 1 when reading or writing failed (said on stderr).
int serve_rpc_fd(int in, int out);

// ---- argument readers shared by the ops ----

// args[key], or InvalidRequest "missing args: KEY".
const Json& require_arg(const Json& args, std::string_view key);
// args[key] when present and not null, else nullptr.
const Json* optional_arg(const Json& args, std::string_view key);
// An "existing" object -> Existing (key order kept); rows must be objects.
zenthar_kodrune::workers::wiki::Existing existing_from_json(const Json& value);
// A "live_paths" list -> PathSet.
zenthar_kodrune::workers::wiki::PathSet paths_from_json(const Json& value, std::string_view what);
// A list of amendment records.
zenthar_kodrune::workers::wiki::Amendments records_from_json(const Json& value,
                                                             std::string_view what);
// A required boolean argument; "empty" values read as false.
bool bool_arg(const Json& args, std::string_view key);
// A boolean argument the protocol gives a default.
bool bool_arg(const Json& args, std::string_view key, bool fallback);

}  // namespace kodrune_cli
