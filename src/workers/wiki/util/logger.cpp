// The plan of record's logger, registered on first use.
#include "zenthar_kodrune/workers/wiki/logger.hpp"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <mutex>
#include <string>

namespace zenthar_kodrune::workers::wiki {

std::shared_ptr<spdlog::logger> plan_record_logger() {
  static std::mutex creating;
  std::lock_guard<std::mutex> hold(creating);
  const std::string name(PLAN_RECORD_LOGGER);
  if (auto logger = spdlog::get(name)) return logger;
  auto logger =
      std::make_shared<spdlog::logger>(name, std::make_shared<spdlog::sinks::stderr_sink_mt>());
  try {
    spdlog::register_logger(logger);
  } catch (const spdlog::spdlog_ex&) {
    // Registered meanwhile by code that does not go through this function.
    return spdlog::get(name);
  }
  return logger;
}

}  // namespace zenthar_kodrune::workers::wiki
