// Folders and files below a trusted root, reached without following links:
// what a planted link, a path that climbs out, or a file of the wrong kind
// meets, and what the renames and unique files the saves rely on do.
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "support/temp_dir.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

std::string read_text(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void write_text(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// A root holding a folder "in" and, beside the root, a folder "outside" with
// a file "secret.txt" that no link may lead to.
class SafeFs : public ::testing::Test {
 protected:
  SafeFs() : root_(tmp_.path() / "root"), outside_(tmp_.path() / "outside") {
    fs::create_directories(root_ / "in");
    fs::create_directories(outside_);
    write_text(outside_ / "secret.txt", "secret");
  }

  // The message of the OsError `call` throws, or "" when it throws none.
  static std::string os_error_of(const std::function<void()>& call) {
    try {
      call();
    } catch (const OsError& error) {
      return error.what();
    }
    return "";
  }

  kodrune_test::TempDir tmp_;
  fs::path root_;
  fs::path outside_;
};

TEST_F(SafeFs, OpenRefusesALinkAsAnyFolderOnTheWay) {
  fs::create_symlink(outside_, root_ / "first");
  fs::create_symlink(outside_, root_ / "in" / "middle");
  // Even a link that stays inside the root is not followed.
  fs::create_symlink(root_ / "in", root_ / "inward");
  for (const char* relative : {"first", "first/deeper", "in/middle/deeper", "inward"}) {
    for (const bool create : {false, true}) {
      const std::string message = os_error_of([&] { SafeDir::open(root_, relative, create); });
      EXPECT_THAT(message, HasSubstr("is a symbolic link")) << relative;
    }
  }
  EXPECT_FALSE(fs::exists(outside_ / "deeper"));
}

TEST_F(SafeFs, OpenCreatesMissingFoldersOnlyWhenAsked) {
  EXPECT_THAT(os_error_of([&] { SafeDir::open(root_, "new/deeper", false); }),
              HasSubstr("could not open the folder"));
  EXPECT_FALSE(fs::exists(root_ / "new"));
  const SafeDir made = SafeDir::open(root_, "new/deeper", true);
  EXPECT_TRUE(fs::is_directory(root_ / "new/deeper"));
  EXPECT_EQ(made.path(), root_ / "new/deeper");
}

TEST_F(SafeFs, OpenRefusesAComponentThatIsAFile) {
  write_text(root_ / "in" / "file", "x");
  EXPECT_THAT(os_error_of([&] { SafeDir::open(root_, "in/file/deeper", true); }),
              HasSubstr("is not a folder"));
}

TEST_F(SafeFs, OpenRefusesARelativePathThatClimbsOrIsAbsolute) {
  for (const char* relative : {"..", "in/../../outside", "in/..", "/etc"}) {
    EXPECT_THROW(SafeDir::open(root_, relative, true), ValueError) << relative;
  }
  EXPECT_FALSE(fs::exists(tmp_.path() / "etc"));
}

TEST_F(SafeFs, OpenIfExistsIsNulloptForAMissingFolderButStillRefusesALink) {
  EXPECT_FALSE(SafeDir::open_if_exists(root_, "in/missing/deeper").has_value());
  EXPECT_FALSE(fs::exists(root_ / "in" / "missing"));
  EXPECT_TRUE(SafeDir::open_if_exists(root_, "in").has_value());

  fs::create_symlink(outside_, root_ / "in" / "link");
  EXPECT_THAT(os_error_of([&] { SafeDir::open_if_exists(root_, "in/link"); }),
              HasSubstr("is a symbolic link"));
}

TEST_F(SafeFs, OpenPathRefusesALinkAsItsLastComponent) {
  fs::create_symlink(outside_, root_ / "last");
  EXPECT_THAT(os_error_of([&] { SafeDir::open_path(root_ / "last", false); }),
              HasSubstr("is a symbolic link"));
  EXPECT_THAT(os_error_of([&] { SafeDir::open_path(root_ / "last/", false); }),
              HasSubstr("is a symbolic link"));
}

TEST_F(SafeFs, OpenPathCreatesTheFolderAndItsParents) {
  const SafeDir made = SafeDir::open_path(root_ / "a" / "b" / "c", true);
  EXPECT_TRUE(fs::is_directory(root_ / "a/b/c"));
  EXPECT_EQ(made.path(), root_ / "a/b/c");
}

TEST_F(SafeFs, EveryEntryOperationRefusesANameThatIsNotPlain) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  write_text(root_ / "in" / "kept", "x");
  const std::function<void(std::string_view)> operations[] = {
      [&](std::string_view name) { dir.child(name, true); },
      [&](std::string_view name) { dir.open_file(name, O_RDWR | O_CREAT); },
      [&](std::string_view name) { dir.open_existing(name, O_RDONLY); },
      [&](std::string_view name) { dir.entry_status(name); },
      [&](std::string_view name) { dir.remove(name); },
      [&](std::string_view name) { dir.rename("kept", name); },
      [&](std::string_view name) { dir.rename(name, "kept"); },
  };
  for (const char* name : {"", ".", "..", "a/b", "../secret.txt"}) {
    for (const auto& operation : operations) {
      EXPECT_THROW(operation(name), ValueError) << '"' << name << '"';
    }
  }
  EXPECT_EQ(read_text(root_ / "in" / "kept"), "x");
}

TEST_F(SafeFs, OpenFileRefusesALinkWhereverItPoints) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  write_text(root_ / "in" / "target.txt", "inside");
  fs::create_symlink(outside_ / "secret.txt", root_ / "in" / "out");
  fs::create_symlink(root_ / "in" / "target.txt", root_ / "in" / "inward");
  fs::create_symlink(outside_ / "planted.txt", root_ / "in" / "dangling");
  for (const char* name : {"out", "inward", "dangling"}) {
    for (const int flags : {O_RDONLY, O_WRONLY | O_CREAT | O_TRUNC}) {
      EXPECT_THAT(os_error_of([&] { dir.open_file(name, flags); }), HasSubstr("is a symbolic link"))
          << name;
    }
  }
  EXPECT_EQ(read_text(outside_ / "secret.txt"), "secret");
  EXPECT_EQ(read_text(root_ / "in" / "target.txt"), "inside");
  EXPECT_FALSE(fs::exists(outside_ / "planted.txt"));
}

// A FIFO would block a reader for ever; a folder or a device is no body.
TEST_F(SafeFs, OpenFileRefusesAFileThatIsNotRegular) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  fs::create_directory(root_ / "in" / "folder");
  ASSERT_EQ(::mkfifo((root_ / "in" / "fifo").c_str(), 0600), 0);
  for (const char* name : {"folder", "fifo"}) {
    EXPECT_THAT(os_error_of([&] { dir.open_file(name, O_RDONLY); }),
                HasSubstr("is not a regular file"))
        << name;
  }
}

TEST_F(SafeFs, OpenExistingIsNulloptForNoEntryAndRefusesALink) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  EXPECT_FALSE(dir.open_existing("missing", O_RDONLY).has_value());
  fs::create_symlink(outside_ / "secret.txt", root_ / "in" / "link");
  EXPECT_THAT(os_error_of([&] { dir.open_existing("link", O_RDONLY); }),
              HasSubstr("is a symbolic link"));
}

TEST_F(SafeFs, EntryStatusDescribesALinkNotItsTarget) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  fs::create_symlink(outside_ / "secret.txt", root_ / "in" / "link");
  const auto status = dir.entry_status("link");
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(S_ISLNK(status->st_mode));
  EXPECT_FALSE(dir.entry_status("missing").has_value());
}

TEST_F(SafeFs, CreateUniqueMakesAFreshFileNamedByThePrefix) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  std::set<std::string> names;
  for (int i = 0; i < 20; ++i) {
    FileDescriptor file = dir.create_unique(".page.md.");
    file.write_all("body");
    const std::string name = file.path().filename().string();
    EXPECT_THAT(name, StartsWith(".page.md."));
    EXPECT_EQ(name.size(), std::string(".page.md.").size() + 6) << name;
    EXPECT_EQ(file.path().parent_path(), root_ / "in");
    names.insert(name);
  }
  EXPECT_EQ(names.size(), 20u);
  for (const auto& name : names) EXPECT_EQ(read_text(root_ / "in" / name), "body") << name;
}

TEST_F(SafeFs, CreateUniqueRefusesAPrefixThatIsNotAPlainName) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  EXPECT_THROW(dir.create_unique("../escape."), ValueError);
  EXPECT_THROW(dir.create_unique("sub/x."), ValueError);
}

TEST_F(SafeFs, RenameReplacesTheTarget) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  write_text(root_ / "in" / "new", "new");
  write_text(root_ / "in" / "old", "old");
  dir.rename("new", "old");
  EXPECT_EQ(read_text(root_ / "in" / "old"), "new");
  EXPECT_FALSE(fs::exists(root_ / "in" / "new"));
}

TEST_F(SafeFs, RenameOverALinkReplacesTheLinkNotItsTarget) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  write_text(root_ / "in" / "body", "body");
  fs::create_symlink(outside_ / "secret.txt", root_ / "in" / "page.md");
  dir.rename("body", "page.md");
  EXPECT_FALSE(fs::is_symlink(root_ / "in" / "page.md"));
  EXPECT_EQ(read_text(root_ / "in" / "page.md"), "body");
  EXPECT_EQ(read_text(outside_ / "secret.txt"), "secret");
}

TEST_F(SafeFs, RenameOfAMissingFileNamesIt) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  const std::string message = os_error_of([&] { dir.rename("missing", "to"); });
  EXPECT_THAT(message, HasSubstr("'missing'"));
  EXPECT_THAT(message, HasSubstr((root_ / "in" / "to").string()));
}

TEST_F(SafeFs, RemoveTakesALinkNotItsTargetAndAMissingNameIsNoError) {
  const SafeDir dir = SafeDir::open(root_, "in", false);
  fs::create_symlink(outside_ / "secret.txt", root_ / "in" / "link");
  dir.remove("link");
  EXPECT_FALSE(fs::is_symlink(root_ / "in" / "link"));
  EXPECT_EQ(read_text(outside_ / "secret.txt"), "secret");
  EXPECT_NO_THROW(dir.remove("link"));
}

// File names are bytes: a name that is not UTF-8 is kept as it is, neither
// refused nor re-encoded.
TEST_F(SafeFs, NonUtf8NamesRoundTripByteForByte) {
  const std::string folder = "caf\xe9";
  const std::string file = "bad\xff\xfe.md";
  const SafeDir dir = SafeDir::open(root_, "in", false).child(folder, true);
  dir.open_file(file, O_WRONLY | O_CREAT).write_all("text");
  EXPECT_THAT(SafeDir::open(root_, "in", false).names(), UnorderedElementsAre(folder));
  EXPECT_THAT(dir.names(), UnorderedElementsAre(file));
  EXPECT_EQ(read_file_below(root_, fs::path("in") / folder / file), "text");
}

TEST_F(SafeFs, NamesListsEveryEntryButDotAndDotDot) {
  write_text(root_ / "in" / "a", "");
  fs::create_directory(root_ / "in" / "b");
  fs::create_symlink(outside_, root_ / "in" / "c");
  EXPECT_THAT(SafeDir::open(root_, "in", false).names(), UnorderedElementsAre("a", "b", "c"));
}

TEST_F(SafeFs, ReadFileBelowRefusesALinkOnTheWayOrAtTheEnd) {
  fs::create_symlink(outside_, root_ / "folder-link");
  fs::create_symlink(outside_ / "secret.txt", root_ / "in" / "file-link");
  for (const char* relative : {"folder-link/secret.txt", "in/file-link"}) {
    EXPECT_THAT(os_error_of([&] { read_file_below(root_, relative); }),
                HasSubstr("is a symbolic link"))
        << relative;
  }
}

TEST_F(SafeFs, ReadFileBelowReadsAWholeFile) {
  const std::string body(100'000, 'x');  // more than one read's buffer
  write_text(root_ / "in" / "big", body);
  EXPECT_EQ(read_file_below(root_, "in/big"), body);
}

TEST_F(SafeFs, ReadAtStopsShortOnlyAtTheEnd) {
  write_text(root_ / "in" / "f", "0123456789");
  FileDescriptor file = SafeDir::open(root_, "in", false).open_file("f", O_RDONLY);
  EXPECT_EQ(file.read_at(2, 3), "234");
  EXPECT_EQ(file.read_at(8, 5), "89");
  EXPECT_EQ(file.read_at(20, 5), "");
}

TEST(IsUtf8, AcceptsWellFormedTextOnly) {
  const std::pair<std::string, bool> cases[] = {
      {"", true},
      {"plain", true},
      {"caf\xc3\xa9 \xe2\x9c\x93 \xf0\x9f\x99\x82", true},  // 2, 3 and 4 bytes
      {"\xf4\x8f\xbf\xbf", true},                           // U+10FFFF, the last
      {"bad\xff", false},
      {"\xc0\xaf", false},          // "/" written long
      {"\xe0\x80\xaf", false},      // "/" written long in three bytes
      {"\xed\xa0\x80", false},      // a UTF-16 surrogate
      {"\xf4\x90\x80\x80", false},  // past U+10FFFF
      {"cut \xe2\x9c", false},
      {"\x80 lone continuation", false},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(is_utf8(text), expected) << text;
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
