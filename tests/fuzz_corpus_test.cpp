// The fuzz target's checks over its saved corpus, as a regular test.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "../fuzz/section_checks.hpp"

namespace {

TEST(FuzzCorpus, SectionChecksHoldForEverySavedInput) {
  const std::filesystem::path corpus = KODRUNE_SOURCE_DIR "/fuzz/corpus";
  ASSERT_TRUE(std::filesystem::is_directory(corpus)) << corpus;
  int inputs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream body;
    body << in.rdbuf();
    EXPECT_EQ(kodrune_fuzz::section_check_failure(body.str()), "") << entry.path();
    ++inputs;
  }
  EXPECT_GT(inputs, 0);
}

}  // namespace
