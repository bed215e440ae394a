// The branch's plan audit log: one line per build that amended the plan.
//
// The log is best-effort: a file-system failure becomes a warning and the
// build goes on. Two builds of one branch may append at once, a process may
// be killed mid-write, and a cloned repository may hold anything, so:
//  - appenders of one log are serialised by an advisory lock (flock) on a
//    sidecar file, held across the append and the rotation. The log itself
//    cannot carry the lock: rotation renames a new file over it, and a writer
//    waiting on the old file's lock would then append to a file no longer
//    named by the path;
//  - the folder and every file are opened without following symbolic links
//    (safe_fs.hpp): a log linked to a file outside the repository is refused;
//  - a log cut off inside its last line is ended with a line feed before the
//    next entry, so the entry is not glued onto the broken line; a line that
//    is not UTF-8 does not stop later appends, and rotation drops it;
//  - rotation writes the kept tail to a temporary file in the same folder,
//    syncs it, and renames it over the log, so the log is always either the
//    whole old text or the whole kept tail, never a truncated one; a
//    temporary file a killed rotation left behind is removed by the next
//    append;
//  - rotation is decided by counting line feeds backwards from the end, so
//    an append reads the last 2001 lines at most, never the whole log;
//  - only a line feed ends a line. The writer leaves U+0085, U+2028 and U+2029
//    unescaped inside strings; counting them as line ends would let rotation
//    cut a record in two.
#include <fcntl.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>

#include <ctime>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "workers/wiki/util/fault_point.hpp"
#include "workers/wiki/util/json_text.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view LOCK_SUFFIX = ".lock";
constexpr std::string_view TEMP_INFIX = ".tmp-";
constexpr std::size_t BLOCK = 1 << 16;

// Local wall-clock time to the second; time() already drops the fraction.
std::string local_time_text() {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  if (::localtime_r(&now, &parts) == nullptr) throw OsError("could not read the local time");
  char text[64];
  std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return std::string(text, size);
}

// Where the log's last `keep` lines begin and whether it holds more than
// `max_lines`, found by reading backwards from the end. The log ends with a
// line feed (the caller just appended a line).
struct TailScan {
  bool rotate = false;
  std::uint64_t keep_from = 0;
};

TailScan scan_tail(FileDescriptor& log, std::uint64_t size, std::size_t max_lines,
                   std::size_t keep) {
  TailScan scan;
  std::size_t feeds = 0;
  std::uint64_t end = size;
  while (end > 0) {
    const std::uint64_t begin = end > BLOCK ? end - BLOCK : 0;
    const std::string block = log.read_at(begin, static_cast<std::size_t>(end - begin));
    for (std::size_t i = block.size(); i-- > 0;) {
      if (block[i] != '\n') continue;
      ++feeds;
      // The (keep + 1)-th line feed from the end closes the line before the
      // kept ones; the (max + 1)-th proves there are more than max lines.
      if (feeds == keep + 1) scan.keep_from = begin + i + 1;
      if (feeds == max_lines + 1) {
        scan.rotate = true;
        return scan;
      }
    }
    end = begin;
  }
  return scan;
}

// The log's last line without its line feed, when it is no longer than
// `limit` bytes (a longer one equals none of the lines it is compared with).
std::optional<std::string> last_line(FileDescriptor& log, std::uint64_t size, std::size_t limit) {
  if (size == 0) return std::nullopt;
  const std::uint64_t content_end = size - 1;  // the final line feed
  const std::uint64_t want = std::min<std::uint64_t>(content_end, limit + 1);
  const std::string text = log.read_at(content_end - want, static_cast<std::size_t>(want));
  const auto feed = text.rfind('\n');
  if (feed == std::string::npos) {
    if (want < content_end) return std::nullopt;  // longer than the limit
    return text;
  }
  return text.substr(feed + 1);
}

void remove_stale_temporaries(const SafeDir& dir) {
  const std::string prefix = std::string(_PLAN_LOG_NAME) + std::string(TEMP_INFIX);
  for (const auto& name : dir.names()) {
    if (name.rfind(prefix, 0) != 0) continue;
    dir.remove(name);
    plan_record_logger()->warn("removed '{}', left by an interrupted rotation of the plan log",
                               (dir.path() / name).string());
  }
}

// Writes the lines of log[keep_from, size) that are UTF-8 to a synced
// temporary file and renames it over the log.
void rotate(const SafeDir& dir, FileDescriptor& log, std::uint64_t keep_from, std::uint64_t size) {
  const std::string temp_prefix = std::string(_PLAN_LOG_NAME) + std::string(TEMP_INFIX);
  FileDescriptor temp = dir.create_unique(temp_prefix, log.status().st_mode & 07777);
  const std::string temp_name = temp.path().filename().string();
  std::size_t dropped = 0;
  try {
    std::string line;
    std::string out;
    for (std::uint64_t at = keep_from; at < size;) {
      const std::string block =
          log.read_at(at, static_cast<std::size_t>(std::min<std::uint64_t>(BLOCK, size - at)));
      if (block.empty()) break;
      at += block.size();
      std::size_t from = 0;
      for (auto feed = block.find('\n'); feed != std::string::npos; feed = block.find('\n', from)) {
        line.append(block, from, feed + 1 - from);
        from = feed + 1;
        if (is_utf8(line)) {
          out += line;
        } else {
          ++dropped;
        }
        line.clear();
        if (out.size() >= BLOCK) {
          temp.write_all(out);
          out.clear();
        }
      }
      line.append(block, from);
    }
    out += line;
    temp.write_all(out);
    temp.sync();
    temp.close();
    util::fault_point("log:rotation-written");
    dir.rename(temp_name, _PLAN_LOG_NAME);
  } catch (...) {
    try {
      dir.remove(temp_name);
    } catch (const OsError&) {
      // The next append removes it.
    }
    throw;
  }
  // The rename is durable only once the folder is synced.
  dir.sync();
  if (dropped > 0) {
    plan_record_logger()->warn("plan log '{}': rotation dropped {} lines that were not UTF-8 text",
                               (dir.path() / _PLAN_LOG_NAME).string(), dropped);
  }
}

// Appends `lines` under the log's lock, skipping (when `skip_appended`) those
// the log already ends with, then rotates.
void append_lines(const SafeDir& dir, const std::vector<std::string>& lines, bool skip_appended) {
  FileDescriptor lock =
      dir.open_file(std::string(_PLAN_LOG_NAME) + std::string(LOCK_SUFFIX), O_RDWR | O_CREAT);
  lock.lock_exclusive();
  remove_stale_temporaries(dir);

  FileDescriptor log = dir.open_file(_PLAN_LOG_NAME, O_RDWR | O_APPEND | O_CREAT);
  std::uint64_t size = static_cast<std::uint64_t>(log.status().st_size);
  if (size > 0 && log.read_at(size - 1, 1) != "\n") {
    // A writer died inside its line: end it, so the next entry stands alone.
    log.write_all("\n");
    ++size;
    plan_record_logger()->warn("plan log '{}' ended inside a line; ended it with a line feed",
                               log.path().string());
  }
  std::size_t first = 0;
  if (skip_appended && size > 0) {
    std::size_t longest = 0;
    for (const auto& line : lines) longest = std::max(longest, line.size());
    if (const auto last = last_line(log, size, longest)) {
      for (std::size_t i = lines.size(); i-- > 0;) {
        if (lines[i].size() == last->size() + 1 && lines[i].compare(0, last->size(), *last) == 0) {
          first = i + 1;
          break;
        }
      }
    }
  }
  std::string text;
  for (std::size_t i = first; i < lines.size(); ++i) text += lines[i];
  if (text.empty()) return;
  log.write_all(text);
  util::fault_point("log:appended");
  size += text.size();

  const TailScan scan = scan_tail(log, size, _PLAN_LOG_MAX_LINES, _PLAN_LOG_KEEP_LINES);
  if (scan.rotate) rotate(dir, log, scan.keep_from, size);
}

}  // namespace

std::string plan_log_line(const Amendments& amendments, bool replan) {
  Json entry = Json::object();
  entry["at"] = local_time_text();
  entry["replan"] = replan;
  entry["amendments"] = Json::array();
  for (const auto& record : amendments) entry["amendments"].push_back(record);
  try {
    std::string line = util::json_text(entry);
    line += '\n';
    return line;
  } catch (const Json::type_error& e) {
    throw ValueError(std::string("an amendment cannot be written to the plan log: ") + e.what());
  }
}

void append_plan_log_lines(const SafeDir& wiki_dir, const std::vector<std::string>& lines) {
  append_lines(wiki_dir, lines, true);
}

void append_plan_log(const std::filesystem::path& wiki_dir, const Amendments& amendments,
                     bool replan) {
  if (amendments.empty()) return;
  // Built before any file is touched, so a record that cannot be written
  // leaves the file system as it was.
  const std::string line = plan_log_line(amendments, replan);
  try {
    append_lines(SafeDir::open_path(wiki_dir, true), {line}, false);
  } catch (const OsError& e) {
    plan_record_logger()->warn("could not append wiki plan log: {}", e.what());
  } catch (const std::system_error& e) {
    plan_record_logger()->warn("could not append wiki plan log: {}", e.what());
  }
}

}  // namespace zenthar_kodrune::workers::wiki
