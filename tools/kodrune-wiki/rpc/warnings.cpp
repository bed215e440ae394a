// The plan of record's warnings during one rpc call, for its answer.
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <mutex>

#include "kodrune-wiki/rpc/rpc.hpp"
#include "zenthar_kodrune/workers/wiki/logger.hpp"

namespace kodrune_cli::rpc {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

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

}  // namespace

struct CapturedWarnings::Capture {
  std::shared_ptr<spdlog::logger> logger = wiki::plan_record_logger();
  std::shared_ptr<WarningSink> sink = std::make_shared<WarningSink>();
};

CapturedWarnings::CapturedWarnings() : capture_(std::make_unique<Capture>()) {
  capture_->logger->sinks().push_back(capture_->sink);
}

CapturedWarnings::~CapturedWarnings() {
  auto& sinks = capture_->logger->sinks();
  sinks.erase(std::remove(sinks.begin(), sinks.end(), capture_->sink), sinks.end());
}

const std::vector<std::string>& CapturedWarnings::messages() const {
  return capture_->sink->messages;
}

}  // namespace kodrune_cli::rpc
