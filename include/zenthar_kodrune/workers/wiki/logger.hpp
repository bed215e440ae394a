// The logger every layer of the plan of record writes to.
#pragma once

#include <memory>
#include <string_view>

namespace spdlog {
class logger;
}  // namespace spdlog

namespace zenthar_kodrune::workers::wiki {

// The name of the plan of record's logger (spdlog).
inline constexpr std::string_view PLAN_RECORD_LOGGER = "zenthar_kodrune.workers.wiki.plan_record";

// The logger registered under PLAN_RECORD_LOGGER, created (writing to
// standard error) and registered on first use when none is. Callers may add
// sinks to it to capture what the plan of record logs.
std::shared_ptr<spdlog::logger> plan_record_logger();

}  // namespace zenthar_kodrune::workers::wiki
