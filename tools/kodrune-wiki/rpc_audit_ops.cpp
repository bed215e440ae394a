// rpc ops of the audit area: the plan log and the drift signal. The log op
// answers with the log's whole text and the warnings the module logged, which
// a sink on the module's logger collects for the duration of the call.
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kodrune-wiki/rpc.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

namespace fs = std::filesystem;

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

// Adds the sink to the module's logger and takes it off again, also when the
// call throws.
class CapturedWarnings {
 public:
  CapturedWarnings() : logger_(wiki::plan_record_logger()), sink_(std::make_shared<WarningSink>()) {
    logger_->sinks().push_back(sink_);
  }
  ~CapturedWarnings() {
    auto& sinks = logger_->sinks();
    sinks.erase(std::remove(sinks.begin(), sinks.end(), sink_), sinks.end());
  }
  CapturedWarnings(const CapturedWarnings&) = delete;
  CapturedWarnings& operator=(const CapturedWarnings&) = delete;

  const std::vector<std::string>& messages() const { return sink_->messages; }

 private:
  std::shared_ptr<spdlog::logger> logger_;
  std::shared_ptr<WarningSink> sink_;
};

Json log_text(const fs::path& log_path) {
  std::error_code error;
  if (!fs::is_regular_file(log_path, error)) return nullptr;
  std::ifstream in(log_path, std::ios::binary);
  if (!in) return nullptr;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Json append_plan_log_op(const Json& args) {
  const Json& wiki_dir = require_arg(args, "wiki_dir");
  if (!wiki_dir.is_string()) throw InvalidRequest("\"wiki_dir\" must be a path as text");
  const fs::path dir = wiki_dir.get<std::string>();
  const wiki::Amendments amendments =
      records_from_json(require_arg(args, "amendments"), "amendments");
  const bool replan = bool_arg(args, "replan");

  CapturedWarnings captured;
  wiki::append_plan_log(dir, amendments, replan);

  Json result = Json::object();
  result["log"] = log_text(dir / wiki::_PLAN_LOG_NAME);
  result["warnings"] = captured.messages();
  return result;
}

Json drift_signal_op(const Json& args) {
  const wiki::Amendments amendments =
      records_from_json(require_arg(args, "amendments"), "amendments");
  const Json& plan_size = require_arg(args, "plan_size");
  if (!plan_size.is_number_integer() ||
      (plan_size.is_number_unsigned() &&
       plan_size.get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX))) {
    throw InvalidRequest("\"plan_size\" must be an integer of 64 bits");
  }
  auto warning = wiki::drift_signal(amendments, plan_size.get<std::int64_t>());
  if (!warning) return nullptr;
  return *warning;
}

}  // namespace

void register_audit_ops(OpTable& ops) {
  ops.emplace("append_plan_log", append_plan_log_op);
  ops.emplace("drift_signal", drift_signal_op);
}

}  // namespace kodrune_cli
