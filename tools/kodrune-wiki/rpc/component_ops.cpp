// rpc ops over the component's pure functions: pinning a fresh plan, the
// drift signal and the section map. They touch no store, so the product and
// the test harness serve them alike.
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kodrune-wiki/rpc/rpc.hpp"
#include "workers/wiki/plan_record/stale_sections.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli::rpc {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

// What pin_plan works on and answers with. It is freed once the answer has
// been sent: a large branch's rows take as long to free as the answer to
// write.
struct PinWork {
  wiki::PlanList fresh_plans;
  wiki::Existing existing;
  wiki::PathSet live_paths;
  wiki::PinResult pinned;
};

// The plans of the answer are written as text, never built as values.
RpcResult pinned(std::shared_ptr<PinWork> work, bool replan) {
  work->pinned = wiki::pin_plan(work->fresh_plans, work->existing, work->live_paths, replan);
  const wiki::PinResult& pinned = work->pinned;
  Json amendments = Json::array();
  for (const auto& record : pinned.amendments) amendments.push_back(record);
  const std::string amendments_text =
      amendments.dump(-1, ' ', false, Json::error_handler_t::replace);
  const std::string remap_text =
      pinned.remap.to_json().dump(-1, ' ', false, Json::error_handler_t::replace);
  std::string text;
  // Room for the plans, the rest and what the loop writes around the
  // answer, made once.
  text.reserve(wiki::plans_json_size(pinned.plans) + amendments_text.size() + remap_text.size() +
               128);
  text += "{\"plans\":";
  wiki::append_plans_json(pinned.plans, text);
  text += ",\"amendments\":";
  text += amendments_text;
  text += ",\"remap\":";
  text += remap_text;
  text += '}';
  RpcResult result = RpcResult::text(std::move(text));
  result.keep_until_sent = std::move(work);
  return result;
}

// The stored rows and live paths are taken out of the request: a large
// branch's rows would otherwise be held twice.
RpcResult pin_plan_op(Json& args) {
  auto work = std::make_shared<PinWork>();
  work->fresh_plans = plans_arg(args, "fresh_plans");
  work->existing = existing_from_json(std::move(require_arg(args, "existing")));
  work->live_paths = paths_from_json(std::move(require_arg(args, "live_paths")), "live_paths");
  return pinned(std::move(work), bool_arg(args, "replan", false));
}

// A part of a request read on its own: its value, or what reading it threw.
template <class T>
struct ReadPart {
  template <class Read>
  explicit ReadPart(Read&& read) {
    try {
      value.emplace(read());
    } catch (...) {
      error = std::current_exception();
    }
  }
  T take() {
    if (error) std::rethrow_exception(error);
    return std::move(*value);
  }
  std::optional<T> value;
  std::exception_ptr error;
};

// The same, read from the request's document: a large request is never
// built as values. The stored rows are read on this thread while the fresh
// plans and the live paths are read on two others; a part's error is raised
// in the order the op over values reads them.
RpcResult pin_plan_document_op(simdjson::dom::object args) {
  std::optional<ReadPart<wiki::PlanList>> fresh_plans;
  std::optional<ReadPart<wiki::PathSet>> live_paths;
  std::thread plans_reader([&] {
    fresh_plans.emplace(
        [&] { return plan_list_from_document(require_arg(args, "fresh_plans"), "fresh_plans"); });
  });
  std::thread paths_reader([&] {
    live_paths.emplace(
        [&] { return paths_from_document(require_arg(args, "live_paths"), "live_paths"); });
  });
  ReadPart<wiki::Existing> existing(
      [&] { return existing_from_document(require_arg(args, "existing")); });
  plans_reader.join();
  paths_reader.join();
  auto work = std::make_shared<PinWork>();
  work->fresh_plans = fresh_plans->take();
  work->existing = existing.take();
  work->live_paths = live_paths->take();
  return pinned(std::move(work), bool_arg(args, "replan", false));
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

Json section_map_op(const Json& args) {
  return wiki::section_map(body_arg(args), require_arg(args, "citations"),
                           require_arg(args, "file_hashes"));
}

namespace dom = simdjson::dom;

// A stored citation of the common shape read in place; any other shape
// (a path or symbol that is not text, lines that are not 64-bit integers)
// goes to the op over values, which says what it makes of it.
wiki::plan_record::CitationView citation_view(dom::element value) {
  if (!value.is_object()) throw wiki::util::NotReadAsParseJson{};
  wiki::plan_record::CitationView citation;
  for (const auto field : dom::object(value)) {
    if (field.key == "path") {
      if (!field.value.is_string()) throw wiki::util::NotReadAsParseJson{};
      citation.path = std::string_view(field.value);
    } else if (field.key == "line_start" || field.key == "line_end") {
      if (field.value.type() != dom::element_type::INT64) throw wiki::util::NotReadAsParseJson{};
      (field.key == "line_start" ? citation.line_start : citation.line_end) =
          std::int64_t(field.value);
    } else if (field.key == "symbol") {
      if (field.value.is_null()) {
        citation.symbol = {};
      } else if (field.value.is_string()) {
        citation.symbol = std::string_view(field.value);
      } else {
        throw wiki::util::NotReadAsParseJson{};
      }
    }
  }
  return citation;
}

// The same, read from the request's document: an 8 MB page of 20,000
// citations built as values took three times as long as its map.
RpcResult section_map_document_op(dom::object args) {
  const auto body = find_arg(args, "body");
  const auto citations = find_arg(args, "citations");
  const auto file_hashes = find_arg(args, "file_hashes");
  if (!body || !body->is_string() || !citations || !citations->is_array() || !file_hashes ||
      !file_hashes->is_object()) {
    throw wiki::util::NotReadAsParseJson{};
  }
  std::vector<wiki::plan_record::CitationView> stored;
  stored.reserve(dom::array(*citations).size());
  for (const dom::element citation : dom::array(*citations)) {
    stored.push_back(citation_view(citation));
  }
  std::unordered_map<std::string_view, std::string_view> hashes;
  for (const auto field : dom::object(*file_hashes)) {
    // A repeated path takes its last value, as the values' reader does.
    if (field.value.is_null()) {
      hashes.erase(field.key);
    } else if (field.value.is_string()) {
      hashes.insert_or_assign(field.key, std::string_view(field.value));
    } else {
      throw wiki::util::NotReadAsParseJson{};
    }
  }
  return wiki::plan_record::section_map_of_views(std::string_view(*body), stored, hashes);
}

}  // namespace

void register_component_ops(OpTable& ops) {
  ops.emplace("pin_plan", RpcHandler(pin_plan_op, pin_plan_document_op));
  ops.emplace("drift_signal", drift_signal_op);
  ops.emplace("section_map", RpcHandler(section_map_op, section_map_document_op));
}

}  // namespace kodrune_cli::rpc
