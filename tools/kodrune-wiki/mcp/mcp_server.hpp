// The Model Context Protocol over stdio: JSON-RPC 2.0, one message per line.
// This layer knows the protocol (lifecycle and version negotiation, ping,
// notifications, cancellation, progress, error codes, checking tool
// arguments against their schemas) and nothing of the wiki; a `Service`
// supplies the tools and resources.
//
// Messages are read on a thread of their own, so a ping is answered and a
// cancellation is seen while a tool runs. A cancelled request still waiting
// is dropped; one already running finishes (the store stays consistent) and
// its response is withheld, as the protocol asks. Requests are served one at
// a time, in the order they came, whether or not the client has sent
// notifications/initialized yet.
//
// Nothing a client sends ends the server: a line that is not JSON, a message
// of the wrong shape, an unknown method or bad parameters are each answered
// with a JSON-RPC error, and the next line is served. Standard output carries
// protocol messages only.
#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace kodrune_cli::mcp {

using zenthar_kodrune::workers::wiki::Json;

inline constexpr int PARSE_ERROR = -32700;
inline constexpr int INVALID_REQUEST = -32600;
inline constexpr int METHOD_NOT_FOUND = -32601;
inline constexpr int INVALID_PARAMS = -32602;
inline constexpr int INTERNAL_ERROR = -32603;
inline constexpr int RESOURCE_NOT_FOUND = -32002;

// The longest message line read; a longer one is answered as a parse error
// without being held in memory.
inline constexpr std::size_t MAX_MESSAGE_BYTES = std::size_t{64} << 20;

// Answered as the JSON-RPC error {code, message, data}.
class RpcError : public std::runtime_error {
 public:
  RpcError(int code, const std::string& message, Json data = nullptr)
      : std::runtime_error(message), code_(code), data_(std::move(data)) {}
  int code() const { return code_; }
  const Json& data() const { return data_; }

 private:
  int code_;
  Json data_;
};

// Progress of the request being served: (progress so far, total) with a
// message. Sends notifications/progress when the request carried a progress
// token, and only when the progress grew; does nothing otherwise. Safe to
// call from any thread while the request runs.
using ProgressFn = std::function<void(double progress, double total, const std::string& message)>;

// What the server offers beyond the protocol itself.
class Service {
 public:
  virtual ~Service() = default;
  // The tool definitions: name, title, description, inputSchema, outputSchema.
  virtual const Json& tools() const = 0;
  // A tools/call result {content, structuredContent, isError} for a tool of
  // tools() whose arguments matched its inputSchema. A failure of the tool
  // itself is a result with isError; an RpcError is a protocol error.
  virtual Json call_tool(const std::string& name, const Json& arguments,
                         const ProgressFn& progress) = 0;
  // resources/list's "resources", resources/templates/list's
  // "resourceTemplates", and resources/read's result for a URI (an RpcError
  // RESOURCE_NOT_FOUND for one it does not serve).
  virtual Json resources() = 0;
  virtual Json resource_templates() = 0;
  virtual Json read_resource(const std::string& uri) = 0;
};

struct ServerInfo {
  std::string name;
  std::string title;
  std::string version;
  std::string instructions;
};

// The protocol revisions served, newest first: those the official SDK
// clients speak. A client asking for another one is offered the newest.
const std::vector<std::string>& supported_protocol_versions();

// Serves the messages read from `in` until it ends, answering on `out`.
// Returns 0.
int serve(std::istream& in, std::ostream& out, Service& service, const ServerInfo& info);

// Where `value` departs from `schema`, in the subset of JSON Schema the
// tools use (type, enum, properties, required, additionalProperties,
// items, minimum); nullopt when it matches. `where` names the value in the
// message ("arguments", "arguments.citations[2].path").
std::optional<std::string> schema_mismatch(const Json& schema, const Json& value,
                                           const std::string& where);

}  // namespace kodrune_cli::mcp
