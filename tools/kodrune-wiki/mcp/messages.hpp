// Reading and writing JSON-RPC messages of the MCP stdio transport.
#pragma once

#include <cstddef>
#include <streambuf>
#include <string>
#include <string_view>

#include "kodrune-wiki/mcp/mcp_server.hpp"

namespace kodrune_cli::mcp {

// The text of a message as sent: bytes that are not UTF-8 (text from the
// repository or a client) go out as U+FFFD rather than failing the answer.
std::string wire_text(const Json& value);

// One line of `in` without its line feed (and carriage return). False at the
// end of input. A line longer than MAX_MESSAGE_BYTES is read to its end but
// not kept: `too_long` is set and `line` holds its start.
bool read_line(std::streambuf& in, std::string& line, bool& too_long);

// A message's JSON; text that is not UTF-8 inside its strings is repaired
// and given back as sent. A ValueError for text that is not JSON.
Json parse_message(std::string_view line);

// Whether `id` can be answered to: a string or an integer.
bool valid_id(const Json* id);

Json error_message(const Json* id, int code, const std::string& text, const Json& data = nullptr);

Json result_message(const Json& id, Json result);

// The text of a string parameter, or INVALID_PARAMS naming it.
const std::string& text_param(const Json& params, std::string_view key);

}  // namespace kodrune_cli::mcp
