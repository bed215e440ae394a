// Path normal form and content hashes. Recorded hash mappings and the host's
// `_source_hashes` both name files in `_norm` form, so a page's stored hashes
// and the current ones meet on the same keys.
#include "workers/wiki/util/repo_facts.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <system_error>
#include <vector>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki::util {

namespace {

using DigestContext = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

// SHA-256 fetched from the provider once. Handing EVP_sha256() to every init
// makes OpenSSL 3 look the algorithm up again on each digest, which cost more
// than hashing a short text.
const EVP_MD* sha256() {
  static const std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)> md(
      EVP_MD_fetch(nullptr, "SHA256", nullptr), &EVP_MD_free);
  if (!md) throw OsError("could not fetch the SHA-256 digest");
  return md.get();
}

void start_sha256(EVP_MD_CTX* context) {
  if (EVP_DigestInit_ex2(context, sha256(), nullptr) != 1) {
    throw OsError("could not start a SHA-256 digest");
  }
}

DigestContext new_sha256() {
  DigestContext context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  if (!context) throw OsError("could not start a SHA-256 digest");
  start_sha256(context.get());
  return context;
}

void digest_update(EVP_MD_CTX* context, const void* data, std::size_t size) {
  if (EVP_DigestUpdate(context, data, size) != 1) throw OsError("SHA-256 digest update failed");
}

std::string digest_hex(EVP_MD_CTX* context) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(context, digest.data(), &size) != 1) {
    throw OsError("SHA-256 digest final failed");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(size * 2);
  for (unsigned int i = 0; i < size; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 0x0f]);
  }
  return hex;
}

std::vector<std::string_view> segments(std::string_view path) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    std::string_view part = path.substr(start, end - start);
    if (!part.empty() && part != ".") parts.push_back(part);
    start = end + 1;
  }
  return parts;
}

}  // namespace

std::string _norm(std::string_view path) {
  std::string slashed(path);
  for (char& c : slashed) {
    if (c == '\\') c = '/';
  }
  std::string normal;
  for (std::string_view part : segments(slashed)) {
    if (!normal.empty()) normal.push_back('/');
    normal.append(part);
  }
  return normal;
}

std::string _repo_path(std::string_view path) {
  const bool absolute = !path.empty() && (path.front() == '/' || path.front() == '\\');
  std::string normal = _norm(path);
  const auto parts = segments(normal);
  if (absolute || std::find(parts.begin(), parts.end(), "..") != parts.end()) {
    throw ValueError("path \"" + std::string(path) + "\" is not a path inside the repository: " +
                     (absolute ? "it is absolute" : "it holds a \"..\" component"));
  }
  return normal;
}

std::string _text_hash(std::string_view text) {
  // One context per thread, started afresh for each text: section maps hash
  // many short texts, and a new context per text was a visible share of it.
  thread_local DigestContext context(nullptr, &EVP_MD_CTX_free);
  if (!context) {
    context.reset(EVP_MD_CTX_new());
    if (!context) throw OsError("could not start a SHA-256 digest");
  }
  start_sha256(context.get());
  digest_update(context.get(), text.data(), text.size());
  return digest_hex(context.get());
}

std::optional<std::string> file_content_hash(const std::filesystem::path& root,
                                             std::string_view relative) {
  namespace fs = std::filesystem;
  const fs::path target = root / fs::path(_repo_path(relative));
  std::error_code error;
  if (!fs::is_regular_file(target, error)) return std::nullopt;
  // A symbolic link inside the tree may still point out of it: such a file is
  // not one of the repository's.
  const fs::path real_root = fs::weakly_canonical(root, error);
  const fs::path real_target = fs::weakly_canonical(target, error);
  if (error) return std::nullopt;
  auto mismatch =
      std::mismatch(real_root.begin(), real_root.end(), real_target.begin(), real_target.end());
  if (mismatch.first != real_root.end()) return std::nullopt;

  std::ifstream in(target, std::ios::binary);
  if (!in) {
    throw OsError("could not read \"" + target.string() + "\": " + std::strerror(errno));
  }
  DigestContext context = new_sha256();
  std::array<char, 65536> buffer{};
  while (in) {
    in.read(buffer.data(), buffer.size());
    if (in.gcount() > 0)
      digest_update(context.get(), buffer.data(), static_cast<std::size_t>(in.gcount()));
  }
  if (in.bad()) throw OsError("could not read \"" + target.string() + "\"");
  return digest_hex(context.get());
}

}  // namespace zenthar_kodrune::workers::wiki::util
