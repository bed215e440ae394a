// Files below a trusted folder reached without following symbolic links.
//
// A cloned repository is not trusted: a symbolic link committed at
// memory/orvane/main/plan-log.jsonl, or at any folder on the way, must not
// make the tool read or write outside the repository. So a path below a
// trusted root (the repository root) is walked one component at a time with
// openat(O_NOFOLLOW | O_DIRECTORY), and files are opened relative to the
// folder's descriptor with O_NOFOLLOW. A symbolic link anywhere on the way is
// an OsError naming it; so is a file that is not a regular file where one is
// needed (a folder given as a body, a device).
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zenthar_kodrune::workers::wiki {

// An open descriptor, closed on destruction. `path` is for messages only.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  FileDescriptor(int fd, std::filesystem::path path) : fd_(fd), path_(std::move(path)) {}
  ~FileDescriptor();
  FileDescriptor(FileDescriptor&& other) noexcept;
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return fd_; }
  const std::filesystem::path& path() const { return path_; }

  void write_all(std::string_view data);
  // From the current offset to the end.
  std::string read_all();
  // `size` bytes at `offset`, fewer only at the end of the file.
  std::string read_at(std::uint64_t offset, std::size_t size);
  struct stat status() const;
  void sync();
  // Waits for an exclusive advisory lock (flock), released on close or when
  // the process dies.
  void lock_exclusive();
  // Reports a failed close, which for a file just written can be the first
  // sign that the data did not reach the disk.
  void close();

 private:
  int fd_ = -1;
  std::filesystem::path path_;
};

// An open folder reached without following links.
class SafeDir {
 public:
  // `root` itself is trusted as given (it may sit below links of the user's
  // own); each component of `relative` is opened without following links,
  // and created when missing if `create` is set.
  static SafeDir open(const std::filesystem::path& root, const std::filesystem::path& relative,
                      bool create);
  // The same without creating anything: nullopt when a folder on the way is
  // missing (a link on the way is still an OsError).
  static std::optional<SafeDir> open_if_exists(const std::filesystem::path& root,
                                               const std::filesystem::path& relative);
  // The folder at `path`, its last component opened without following a link.
  static SafeDir open_path(const std::filesystem::path& path, bool create);

  const std::filesystem::path& path() const { return fd_.path(); }
  int fd() const { return fd_.get(); }

  SafeDir child(std::string_view name, bool create) const;
  // A regular file of this folder opened with `flags` (O_CREAT allowed); a
  // link or a file of another kind is an OsError naming it.
  FileDescriptor open_file(std::string_view name, int flags, mode_t mode = 0644) const;
  // The same, or nullopt when there is no entry of that name.
  std::optional<FileDescriptor> open_existing(std::string_view name, int flags) const;
  // A new file of its own, named `prefix` followed by six random characters.
  FileDescriptor create_unique(std::string_view prefix, mode_t mode = 0644) const;
  // lstat of an entry; nullopt when there is none.
  std::optional<struct stat> entry_status(std::string_view name) const;
  // Removes a file; none is no error.
  void remove(std::string_view name) const;
  void rename(std::string_view from, std::string_view to) const;
  // The names of the entries, "." and ".." left out.
  std::vector<std::string> names() const;
  // Makes renames and creations in the folder durable.
  void sync() const;

 private:
  explicit SafeDir(FileDescriptor fd) : fd_(std::move(fd)) {}
  FileDescriptor fd_;
};

// Reads a whole regular file below `root` without following links; an
// OsError naming the path for a link, a file of another kind or a failure.
std::string read_file_below(const std::filesystem::path& root,
                            const std::filesystem::path& relative);

// Whether `text` is well-formed UTF-8.
bool is_utf8(std::string_view text);

}  // namespace zenthar_kodrune::workers::wiki
