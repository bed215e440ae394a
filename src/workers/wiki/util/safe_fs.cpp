// Folders and files reached without following links. See safe_fs.hpp.
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <system_error>

#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void throw_os_error(std::string_view what, const fs::path& path, int error) {
  throw OsError("could not " + std::string(what) + " '" + path.string() +
                "': " + std::error_code(error, std::generic_category()).message());
}

[[noreturn]] void refuse_link(const fs::path& path) {
  throw OsError("'" + path.string() +
                "' is a symbolic link; refusing to follow it out of the repository");
}

bool is_link(int dir_fd, std::string_view name) {
  struct stat info {};
  return ::fstatat(dir_fd, std::string(name).c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISLNK(info.st_mode);
}

// One component: a plain name, never "", "." or "..", nor holding "/".
void check_component(std::string_view name, const fs::path& where) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) {
    throw ValueError("'" + (where / std::string(name)).string() + "' is not a plain name");
  }
}

// -1 for a missing folder when `missing_ok`.
int open_child_dir(int dir_fd, const fs::path& parent, std::string_view name, bool create,
                   bool missing_ok = false) {
  check_component(name, parent);
  const std::string text(name);
  const fs::path path = parent / text;
  for (int attempt = 0;; ++attempt) {
    const int fd = ::openat(dir_fd, text.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) return fd;
    const int error = errno;
    if (error == EINTR) continue;
    if (error == ELOOP || (error == ENOTDIR && is_link(dir_fd, name))) refuse_link(path);
    if (error == ENOTDIR) throw OsError("'" + path.string() + "' is not a folder");
    if (error == ENOENT && missing_ok) return -1;
    if (error != ENOENT || !create || attempt > 3) throw_os_error("open the folder", path, error);
    if (::mkdirat(dir_fd, text.c_str(), 0755) != 0 && errno != EEXIST) {
      throw_os_error("create the folder", path, errno);
    }
  }
}

}  // namespace

// ---- FileDescriptor ----

FileDescriptor::~FileDescriptor() {
  if (fd_ >= 0) ::close(fd_);
}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : fd_(other.fd_), path_(std::move(other.path_)) {
  other.fd_ = -1;
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.fd_;
    path_ = std::move(other.path_);
    other.fd_ = -1;
  }
  return *this;
}

void FileDescriptor::write_all(std::string_view data) {
  while (!data.empty()) {
    const ssize_t written = ::write(fd_, data.data(), data.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      throw_os_error("write", path_, errno);
    }
    data.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::string FileDescriptor::read_all() {
  std::string text;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t got = ::read(fd_, buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      throw_os_error("read", path_, errno);
    }
    if (got == 0) return text;
    text.append(buffer, static_cast<std::size_t>(got));
  }
}

std::string FileDescriptor::read_at(std::uint64_t offset, std::size_t size) {
  std::string text(size, '\0');
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got =
        ::pread(fd_, text.data() + done, size - done, static_cast<off_t>(offset + done));
    if (got < 0) {
      if (errno == EINTR) continue;
      throw_os_error("read", path_, errno);
    }
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  text.resize(done);
  return text;
}

struct stat FileDescriptor::status() const {
  struct stat info {};
  if (::fstat(fd_, &info) != 0) throw_os_error("stat", path_, errno);
  return info;
}

void FileDescriptor::sync() {
  if (::fsync(fd_) != 0) throw_os_error("sync", path_, errno);
}

void FileDescriptor::lock_exclusive() {
  while (::flock(fd_, LOCK_EX) != 0) {
    if (errno != EINTR) throw_os_error("lock", path_, errno);
  }
}

void FileDescriptor::close() {
  const int fd = fd_;
  fd_ = -1;
  if (fd >= 0 && ::close(fd) != 0 && errno != EINTR) throw_os_error("close", path_, errno);
}

// ---- SafeDir ----

SafeDir SafeDir::open(const fs::path& root, const fs::path& relative, bool create) {
  int fd = -1;
  do {
    fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) throw_os_error("open the folder", root, errno);
  SafeDir dir(FileDescriptor(fd, root));
  for (const auto& part : relative) {
    const std::string name = part.string();
    if (name.empty() || name == ".") continue;
    dir = dir.child(name, create);
  }
  return dir;
}

std::optional<SafeDir> SafeDir::open_if_exists(const fs::path& root, const fs::path& relative) {
  SafeDir dir = open(root, {}, false);
  for (const auto& part : relative) {
    const std::string name = part.string();
    if (name.empty() || name == ".") continue;
    const int fd = open_child_dir(dir.fd(), dir.path(), name, false, true);
    if (fd < 0) return std::nullopt;
    dir = SafeDir(FileDescriptor(fd, dir.path() / name));
  }
  return dir;
}

SafeDir SafeDir::open_path(const fs::path& path, bool create) {
  const fs::path normal = fs::absolute(path).lexically_normal();
  fs::path parent = normal.parent_path();
  std::string name = normal.filename().string();
  if (name.empty()) {  // a trailing "/"
    name = parent.filename().string();
    parent = parent.parent_path();
  }
  if (name.empty()) return open(normal, {}, false);
  if (create) {
    std::error_code ignored;
    fs::create_directories(parent, ignored);
  }
  return open(parent, name, create);
}

SafeDir SafeDir::child(std::string_view name, bool create) const {
  const int fd = open_child_dir(fd_.get(), path(), name, create);
  return SafeDir(FileDescriptor(fd, path() / std::string(name)));
}

FileDescriptor SafeDir::open_file(std::string_view name, int flags, mode_t mode) const {
  check_component(name, path());
  const std::string text(name);
  const fs::path file = path() / text;
  int fd = -1;
  do {
    // Non-blocking, so a FIFO planted in the way is refused rather than waited on.
    fd = ::openat(fd_.get(), text.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    const int error = errno;
    if (error == ELOOP || is_link(fd_.get(), name)) refuse_link(file);
    if (error == EISDIR) throw OsError("'" + file.string() + "' is not a regular file");
    throw_os_error("open", file, error);
  }
  FileDescriptor out(fd, file);
  if (!S_ISREG(out.status().st_mode)) {
    throw OsError("'" + file.string() + "' is not a regular file");
  }
  const int status_flags = ::fcntl(fd, F_GETFL);
  if (status_flags >= 0) ::fcntl(fd, F_SETFL, status_flags & ~O_NONBLOCK);
  return out;
}

std::optional<FileDescriptor> SafeDir::open_existing(std::string_view name, int flags) const {
  if (!entry_status(name)) return std::nullopt;
  return open_file(name, flags);
}

FileDescriptor SafeDir::create_unique(std::string_view prefix, mode_t mode) const {
  static constexpr std::string_view kLetters =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::random_device device;
  std::uniform_int_distribution<std::size_t> pick(0, kLetters.size() - 1);
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name(prefix);
    for (int i = 0; i < 6; ++i) name.push_back(kLetters[pick(device)]);
    check_component(name, path());
    const int fd = ::openat(fd_.get(), name.c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0) return FileDescriptor(fd, path() / name);
    if (errno != EEXIST && errno != EINTR) throw_os_error("create", path() / name, errno);
  }
  throw OsError("could not create a file of its own in '" + path().string() + "'");
}

std::optional<struct stat> SafeDir::entry_status(std::string_view name) const {
  check_component(name, path());
  struct stat info {};
  if (::fstatat(fd_.get(), std::string(name).c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
    return info;
  }
  if (errno == ENOENT) return std::nullopt;
  throw_os_error("stat", path() / std::string(name), errno);
}

void SafeDir::remove(std::string_view name) const {
  check_component(name, path());
  if (::unlinkat(fd_.get(), std::string(name).c_str(), 0) != 0 && errno != ENOENT) {
    throw_os_error("remove", path() / std::string(name), errno);
  }
}

void SafeDir::rename(std::string_view from, std::string_view to) const {
  check_component(from, path());
  check_component(to, path());
  if (::renameat(fd_.get(), std::string(from).c_str(), fd_.get(), std::string(to).c_str()) != 0) {
    throw_os_error("rename '" + std::string(from) + "' to", path() / std::string(to), errno);
  }
}

std::vector<std::string> SafeDir::names() const {
  const int fd = ::openat(fd_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) throw_os_error("list", path(), errno);
  DIR* listing = ::fdopendir(fd);
  if (listing == nullptr) {
    const int error = errno;
    ::close(fd);
    throw_os_error("list", path(), error);
  }
  std::vector<std::string> out;
  while (const dirent* entry = ::readdir(listing)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") out.emplace_back(name);
  }
  ::closedir(listing);
  return out;
}

void SafeDir::sync() const {
  if (::fsync(fd_.get()) != 0) throw_os_error("sync", path(), errno);
}

std::string read_file_below(const fs::path& root, const fs::path& relative) {
  const SafeDir dir = SafeDir::open(root, relative.parent_path(), false);
  FileDescriptor file = dir.open_file(relative.filename().string(), O_RDONLY);
  return file.read_all();
}

bool is_utf8(std::string_view text) {
  std::size_t i = 0;
  char32_t code = 0;
  while (i < text.size()) {
    const std::size_t length = util::utf8_character(text, i, code);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

}  // namespace zenthar_kodrune::workers::wiki
