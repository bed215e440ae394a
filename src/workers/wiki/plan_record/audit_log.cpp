// The branch's plan audit log: one line per build that amended the plan.
//
// The log is best-effort: a file-system failure becomes a warning and the
// build goes on. Two builds of one branch may append at once, and a machine
// may stop mid-write, so:
//  - appenders of one log are serialised by an advisory lock (flock) on a
//    sidecar file, held across the append and the rotation. The log itself
//    cannot carry the lock: rotation renames a new file over it, and a writer
//    waiting on the old file's lock would then append to a file no longer
//    named by the path;
//  - rotation writes the kept tail to a temporary file in the same folder,
//    syncs it, and renames it over the log, so the log is always either the
//    whole old text or the whole kept tail, never a truncated one;
//  - only a line feed ends a line. The writer leaves U+0085, U+2028 and U+2029
//    unescaped inside strings; counting them as line ends would let rotation
//    cut a record in two.
#include <fcntl.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "json_text.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view LOCK_SUFFIX = ".lock";

[[noreturn]] void throw_os_error(std::string_view what, const fs::path& path, int error) {
  throw OsError("could not " + std::string(what) + " '" + path.string() +
                "': " + std::error_code(error, std::generic_category()).message());
}

// Closes on destruction; `close` reports a failed close, which for a file
// just written can be the first sign that the data did not reach the disk.
class FileDescriptor {
 public:
  FileDescriptor(const fs::path& path, int flags, mode_t mode = 0644) : path_(path) {
    do {
      fd_ = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd_ < 0 && errno == EINTR);
    if (fd_ < 0) throw_os_error("open", path, errno);
  }
  // Adopts an open descriptor (from mkstemp).
  struct Adopt {};
  FileDescriptor(Adopt, const fs::path& path, int fd) : path_(path), fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return fd_; }

  void write_all(std::string_view data) {
    while (!data.empty()) {
      ssize_t written = ::write(fd_, data.data(), data.size());
      if (written < 0) {
        if (errno == EINTR) continue;
        throw_os_error("write", path_, errno);
      }
      data.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  std::string read_all() {
    std::string text;
    char buffer[1 << 16];
    for (;;) {
      ssize_t got = ::read(fd_, buffer, sizeof buffer);
      if (got < 0) {
        if (errno == EINTR) continue;
        throw_os_error("read", path_, errno);
      }
      if (got == 0) return text;
      text.append(buffer, static_cast<std::size_t>(got));
    }
  }

  void sync() {
    if (::fsync(fd_) != 0) throw_os_error("sync", path_, errno);
  }

  void lock_exclusive() {
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) throw_os_error("lock", path_, errno);
    }
  }

  void close() {
    int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0 && errno != EINTR) throw_os_error("close", path_, errno);
  }

 private:
  fs::path path_;
  int fd_ = -1;
};

// Local wall-clock time to the second; time() already drops the fraction.
std::string local_time_text() {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  if (::localtime_r(&now, &parts) == nullptr) throw OsError("could not read the local time");
  char text[64];
  std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return std::string(text, size);
}

// The entry's line, line feed included. Built before any file is touched, so
// a record that cannot be written leaves the file system as it was.
std::string encode_entry(const Amendments& amendments, bool replan) {
  Json entry = Json::object();
  entry["at"] = local_time_text();
  entry["replan"] = replan;
  entry["amendments"] = Json::array();
  for (const auto& record : amendments) entry["amendments"].push_back(record);
  try {
    std::string line = json_text(entry);
    line += '\n';
    return line;
  } catch (const Json::type_error& e) {
    throw ValueError(std::string("an amendment cannot be written to the plan log: ") + e.what());
  }
}

void require_utf8(const std::string& text, const fs::path& log_path) {
  try {
    (void)Json(text).dump(-1, ' ', false, Json::error_handler_t::strict);
  } catch (const Json::type_error& e) {
    throw ValueError("plan log '" + log_path.string() + "' is not UTF-8 text: " + e.what());
  }
}

// Byte offset where the last `keep` lines of `text` begin, or npos when the
// text holds no more than `max_lines` lines. A last line without a line feed
// still counts.
std::size_t rotation_start(const std::string& text, std::size_t max_lines, std::size_t keep) {
  std::vector<std::size_t> starts;
  if (!text.empty()) starts.push_back(0);
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
    if (at + 1 < text.size()) starts.push_back(at + 1);
  }
  if (starts.size() <= max_lines) return std::string::npos;
  return starts[starts.size() - keep];
}

// Replaces the log by `tail` through a synced temporary file and a rename, so
// a reader or a crash sees either the old log or the new one, whole.
void replace_log(const fs::path& wiki_dir, const fs::path& log_path, std::string_view tail,
                 mode_t mode) {
  std::string pattern = (wiki_dir / (std::string(_PLAN_LOG_NAME) + ".tmp-XXXXXX")).string();
  int fd = ::mkstemp(pattern.data());
  if (fd < 0) throw_os_error("create a temporary file in", wiki_dir, errno);
  const fs::path temp_path = pattern;
  FileDescriptor temp(FileDescriptor::Adopt{}, temp_path, fd);
  try {
    if (::fchmod(temp.get(), mode) != 0) throw_os_error("set the mode of", temp_path, errno);
    temp.write_all(tail);
    temp.sync();
    temp.close();
    if (::rename(temp_path.c_str(), log_path.c_str()) != 0) {
      throw_os_error("rename the rotated log over", log_path, errno);
    }
  } catch (...) {
    ::unlink(temp_path.c_str());
    throw;
  }
  // The rename is durable only once the folder is synced.
  FileDescriptor folder(wiki_dir, O_RDONLY | O_DIRECTORY);
  folder.sync();
}

void append_and_rotate(const fs::path& wiki_dir, const std::string& line) {
  const fs::path log_path = wiki_dir / _PLAN_LOG_NAME;
  std::error_code error;
  fs::create_directories(wiki_dir, error);
  if (error) {
    throw OsError("could not create directory '" + wiki_dir.string() + "': " + error.message());
  }

  FileDescriptor lock(wiki_dir / (std::string(_PLAN_LOG_NAME) + std::string(LOCK_SUFFIX)),
                      O_RDWR | O_CREAT);
  lock.lock_exclusive();

  {
    FileDescriptor log(log_path, O_WRONLY | O_APPEND | O_CREAT);
    log.write_all(line);
    log.close();
  }

  FileDescriptor log(log_path, O_RDONLY);
  std::string text = log.read_all();
  require_utf8(text, log_path);
  std::size_t start = rotation_start(text, _PLAN_LOG_MAX_LINES, _PLAN_LOG_KEEP_LINES);
  if (start == std::string::npos) return;
  struct stat status {};
  if (::fstat(log.get(), &status) != 0) throw_os_error("stat", log_path, errno);
  replace_log(wiki_dir, log_path, std::string_view(text).substr(start), status.st_mode & 07777);
}

}  // namespace

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

void append_plan_log(const std::filesystem::path& wiki_dir, const Amendments& amendments,
                     bool replan) {
  if (amendments.empty()) return;
  try {
    append_and_rotate(wiki_dir, encode_entry(amendments, replan));
  } catch (const OsError& e) {
    plan_record_logger()->warn("could not append wiki plan log: {}", e.what());
  } catch (const std::system_error& e) {
    plan_record_logger()->warn("could not append wiki plan log: {}", e.what());
  }
}

}  // namespace zenthar_kodrune::workers::wiki
