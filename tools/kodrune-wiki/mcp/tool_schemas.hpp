// The wiki's MCP tools as listed to a client.
#pragma once

#include "kodrune-wiki/mcp/mcp_server.hpp"

namespace kodrune_cli::mcp {

// The "tools" of a tools/list answer: each tool's name, description and the
// schemas of its arguments and structured result.
Json build_tools();

}  // namespace kodrune_cli::mcp
