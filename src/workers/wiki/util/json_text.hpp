// The JSON text form of the plan log: one line, ", " after every comma and
// ": " after every colon, no other spaces outside strings, members in
// insertion order, non-ASCII characters as UTF-8 rather than escapes. Readers
// of the log compare its lines byte for byte, so every log line is written
// here. The store writes its JSON columns compactly instead (no spaces) and
// reads them back as values, never as text.
#pragma once

#include <string>

#include "zenthar_kodrune/workers/wiki/json.hpp"

namespace zenthar_kodrune::workers::wiki::util {

// Appends the text of `value` to `out`. A string that is not valid UTF-8 is a
// Json::type_error (316); `out` may then hold part of the text.
void append_json_text(std::string& out, const Json& value);

// The text of `value`; same failure as `append_json_text`.
std::string json_text(const Json& value);

}  // namespace zenthar_kodrune::workers::wiki::util
