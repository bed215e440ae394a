// Facts about the repository: path normal form and content hashes.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace zenthar_kodrune::workers::wiki::util {

// Backslashes become "/", empty and "." segments are dropped: "./src//x.cpp"
// gives "src/x.cpp". ".." segments are kept as they stand.
std::string _norm(std::string_view path);

// `path` in `_norm` form, as the name of a file under the repository root. An
// absolute path, or one with a ".." component anywhere, is a ValueError: git
// never lists one, and a ".." that climbs back inside would give one file a
// second name, and so a second hash-cache key.
std::string _repo_path(std::string_view path);

// Lowercase hexadecimal SHA-256 of the text's bytes (64 characters).
std::string _text_hash(std::string_view text);

// Lowercase hexadecimal SHA-256 of a file's bytes; nullopt when `relative` is
// not a regular file under `root`. A path `_repo_path` refuses is a
// ValueError; a read failure an OsError.
std::optional<std::string> file_content_hash(const std::filesystem::path& root,
                                             std::string_view relative);

}  // namespace zenthar_kodrune::workers::wiki::util
