// The rpc loop: parse, dispatch, answer. A bad line is answered with an error
// and the loop goes on.
#include "kodrune-wiki/rpc/rpc.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "workers/wiki/util/huge_pages.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli::rpc {

namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::util::kHugePage;

namespace {

Json error_response(const Json& id, std::string_view kind, std::string_view message) {
  Json response = Json::object();
  response["id"] = id;
  response["error"] = Json::object();
  response["error"]["kind"] = kind;
  response["error"]["message"] = message;
  return response;
}

// The protocol's kinds; anything the library raises outside them (a store
// failure, a file-system error) is an "os_error".
std::string_view protocol_kind(std::string_view kind) {
  if (kind == "key_error" || kind == "type_error" || kind == "value_error" ||
      kind == "invalid_request") {
    return kind;
  }
  return "os_error";
}

std::string dump(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The answer to a request whose op and id are known: the op's result, or the
// error it raised in the protocol's kinds. NotReadAsParseJson passes through.
template <class Call>
RpcAnswer answer(const Json& id, Call&& call) {
  try {
    RpcResult result = call();
    if (result.json_text) {
      // The same bytes as dumping {"id": ..., "result": ...} would give,
      // written around the op's text rather than copying it.
      std::string& line = *result.json_text;
      std::string head = "{\"id\":";
      head += dump(id);
      head += ",\"result\":";
      line.insert(0, head);
      line += '}';
      return {std::move(line), std::move(result.keep_until_sent)};
    }
    Json response = Json::object();
    response["id"] = id;
    response["result"] = std::move(result.value);
    return {dump(response), std::move(result.keep_until_sent)};
  } catch (const InvalidRequest& e) {
    return {dump(error_response(id, "invalid_request", e.what())), nullptr};
  } catch (const wiki::Error& e) {
    return {dump(error_response(id, protocol_kind(e.kind()), e.what())), nullptr};
  } catch (const Json::type_error& e) {
    return {dump(error_response(id, "type_error", e.what())), nullptr};
  } catch (const Json::exception& e) {
    return {dump(error_response(id, "value_error", e.what())), nullptr};
  } catch (const std::exception& e) {
    return {dump(error_response(id, "os_error", e.what())), nullptr};
  }
}

// The answer of an op that reads its args from the document, when the
// request is well formed and names such an op; nothing otherwise, and the
// request is then answered from its value.
std::optional<RpcAnswer> answer_from_document(const OpTable& ops,
                                              const wiki::util::JsonDocument& document) {
  const simdjson::dom::element* root = document.root();
  if (root == nullptr || !root->is_object()) return std::nullopt;
  const simdjson::dom::object request(*root);
  const auto op = find_arg(request, "op");
  if (!op || !op->is_string()) return std::nullopt;
  const auto found = ops.find(std::string_view(*op));
  if (found == ops.end() || !found->second.from_document) return std::nullopt;
  const auto args = find_arg(request, "args");
  if (!args || !args->is_object()) return std::nullopt;
  try {
    const auto id_value = find_arg(request, "id");
    const Json id = id_value ? wiki::util::json_from_dom(*id_value) : Json(nullptr);
    return answer(id, [&] { return found->second.from_document(simdjson::dom::object(*args)); });
  } catch (const wiki::util::NotReadAsParseJson&) {
    return std::nullopt;
  }
}

}  // namespace

RpcAnswer rpc_answer(const OpTable& ops, std::string_view line, bool padded) {
  const wiki::util::JsonDocument document(line, padded);
  if (auto answered = answer_from_document(ops, document)) return std::move(*answered);
  const auto refused = [](const Json& id, std::string_view message) {
    return RpcAnswer{dump(error_response(id, "invalid_request", message)), nullptr};
  };
  Json request;
  try {
    request = document.value();
  } catch (const wiki::ValueError& e) {
    return refused(nullptr, std::string("malformed JSON: ") + e.what());
  }
  if (!request.is_object()) return refused(nullptr, "a request must be a JSON object");
  const Json id = request.contains("id") ? request["id"] : Json(nullptr);
  const Json* op = wiki::find_value(request, "op");
  if (op == nullptr || !op->is_string()) return refused(id, "a request needs \"op\" as text");
  auto found = ops.find(op->get_ref<const std::string&>());
  if (found == ops.end())
    return refused(id, "unknown op: " + wiki::util::cut_input(op->get<std::string>()));
  const auto args = request.find("args");
  if (args == request.end() || !args->is_object()) {
    return refused(id, "a request needs \"args\" as an object");
  }
  return answer(id, [&] { return found->second.from_values(*args); });
}

std::string rpc_respond(const OpTable& ops, std::string_view line) {
  return rpc_answer(ops, line).line;
}

namespace {

// Answers waiting to be written, and what to free once they have been.
struct Pending {
  std::string text;
  std::vector<std::shared_ptr<const void>> keep_until_sent;

  void sent() {
    text.clear();
    keep_until_sent.clear();
  }
};

// One line's answer to the output.
bool serve_line(const OpTable& ops, std::string_view line, bool padded, Pending& pending) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (line.find_first_not_of(" \t") == std::string_view::npos) return false;
  RpcAnswer answer = rpc_answer(ops, line, padded);
  if (pending.text.empty()) {
    pending.text = std::move(answer.line);
  } else {
    pending.text += answer.line;
  }
  pending.text += '\n';
  if (answer.keep_until_sent) pending.keep_until_sent.push_back(std::move(answer.keep_until_sent));
  return true;
}

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t wrote = ::write(fd, bytes.data(), bytes.size());
    if (wrote < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(wrote));
  }
  return true;
}

// The input not yet served. Its room doubles as it fills, is never filled
// with zeros first, and grows in place: mremap moves the pages, not the
// bytes, so a request of tens of megabytes is neither copied nor touched
// again as it arrives. (A pipe hands over 64 KiB per read; zero-filling the
// room before each read once made a large request's reading quadratic.)
// Past its bytes there is always room for the padding the document reader
// may read, so every line is parsed where it lies.
class InputBuffer {
 public:
  InputBuffer() = default;
  InputBuffer(const InputBuffer&) = delete;
  InputBuffer& operator=(const InputBuffer&) = delete;
  ~InputBuffer() {
    if (data_ != nullptr) ::munmap(data_, capacity_);
  }

  std::string_view bytes() const { return {data_, size_}; }

  // Reads once from `fd` into room of at least `block` bytes; the bytes
  // read, 0 at the end of input, or -1 (errno says why).
  ssize_t read_from(int fd, std::size_t block) {
    if (capacity_ - size_ < block + simdjson::SIMDJSON_PADDING) {
      grow(std::max(capacity_ * 2, size_ + block + simdjson::SIMDJSON_PADDING));
    }
    ssize_t got;
    do {
      got = ::read(fd, data_ + size_, capacity_ - simdjson::SIMDJSON_PADDING - size_);
    } while (got < 0 && errno == EINTR);
    if (got > 0) size_ += static_cast<std::size_t>(got);
    return got;
  }

  // Forgets the first `count` bytes.
  void drop(std::size_t count) {
    std::memmove(data_, data_ + count, size_ - count);
    size_ -= count;
  }

 private:
  void grow(std::size_t capacity) {
    capacity = (capacity + kHugePage - 1) / kHugePage * kHugePage;
    // The kernel backs only whole, aligned 2 MiB ranges of a mapping with a
    // huge page, and places a new or moved mapping wherever it likes: room
    // taken as it came faulted a 10 MB request in 4 KiB at a time, 2,000
    // faults. The room is therefore moved to an aligned place of its own.
    void* spare = ::mmap(nullptr, capacity + kHugePage, PROT_NONE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (spare == MAP_FAILED) throw std::bad_alloc();
    const auto spare_at = reinterpret_cast<std::uintptr_t>(spare);
    const std::uintptr_t aligned = (spare_at + kHugePage - 1) & ~(kHugePage - 1);
    void* room = reinterpret_cast<void*>(aligned);
    // Over the aligned part of the spare range: the pages move, not the bytes.
    void* placed = data_ == nullptr
                       ? ::mmap(room, capacity, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0)
                       : ::mremap(data_, capacity_, capacity, MREMAP_MAYMOVE | MREMAP_FIXED, room);
    if (placed == MAP_FAILED) {
      ::munmap(spare, capacity + kHugePage);
      throw std::bad_alloc();
    }
    if (aligned > spare_at) ::munmap(spare, aligned - spare_at);
    const std::uintptr_t tail = aligned + capacity;
    if (tail < spare_at + capacity + kHugePage) {
      ::munmap(reinterpret_cast<void*>(tail), spare_at + capacity + kHugePage - tail);
    }
    // A large request fills megabytes: in 2 MiB pages where the kernel
    // allows them, it faults a few times rather than thousands.
    ::madvise(room, capacity, MADV_HUGEPAGE);
    data_ = static_cast<char*>(room);
    capacity_ = capacity;
  }

  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace

int serve_rpc(const OpTable& ops, std::istream& in, std::ostream& out) {
  std::string line;
  Pending pending;
  while (std::getline(in, line)) {
    if (!serve_line(ops, line, false, pending)) continue;
    out << pending.text;
    out.flush();
    pending.sent();
  }
  return 0;
}

int serve_rpc_fd(const OpTable& ops, int in, int out) {
  // Input comes in large blocks and is cut into lines here; a line longer
  // than a block grows the buffer. The answers to the lines of a block are
  // written together before the next read, so a client that sends a request
  // and waits gets its answer at once, and a piped batch takes few writes.
  constexpr std::size_t kBlock = std::size_t{1} << 20;
  // A pipe holds 64 KiB unless asked for more: a request of tens of
  // megabytes then arrives in hundreds of reads, each waiting on the writer.
  // A pipe of a block's size (the system's limit, unless raised) takes a
  // hundredth of them; where the size cannot be set, the pipe stays as it is.
  struct stat input {};
  if (::fstat(in, &input) == 0 && S_ISFIFO(input.st_mode)) {
    ::fcntl(in, F_SETPIPE_SZ, static_cast<int>(kBlock));
  }
  InputBuffer buffer;
  Pending pending;
  std::size_t start = 0;  // first byte of the unserved part of `buffer`
  bool at_end = false;
  while (!at_end) {
    if (start > 0 && start * 2 >= buffer.bytes().size()) {
      buffer.drop(start);
      start = 0;
    }
    const std::size_t filled = buffer.bytes().size();
    const ssize_t got = buffer.read_from(in, kBlock);
    if (got < 0) {
      std::perror("rpc: cannot read the input");
      return 1;
    }
    at_end = got == 0;
    const std::string_view bytes = buffer.bytes();
    // Lines completed by this read.
    std::size_t search = std::max(start, filled);
    for (std::size_t newline; (newline = bytes.find('\n', search)) != std::string_view::npos;) {
      serve_line(ops, bytes.substr(start, newline - start), true, pending);
      start = newline + 1;
      search = start;
    }
    if (at_end && start < bytes.size()) {
      serve_line(ops, bytes.substr(start), true, pending);
      start = bytes.size();
    }
    if (!pending.text.empty()) {
      if (!write_all(out, pending.text)) {
        std::perror("rpc: cannot write the answers");
        return 1;
      }
      pending.sent();
    }
  }
  return 0;
}

}  // namespace kodrune_cli::rpc
