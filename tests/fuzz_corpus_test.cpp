// The fuzz targets' checks over their saved corpora, as regular tests. The rpc
// corpus keeps the lines that once crashed the loop (a number past a
// double's range, nesting tens of thousands deep).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "../fuzz/rpc_checks.hpp"
#include "../fuzz/section_checks.hpp"

namespace {

void replay(const std::string& folder,
            const std::function<std::string(const std::string&)>& check) {
  const std::filesystem::path corpus = std::filesystem::path(KODRUNE_SOURCE_DIR "/fuzz") / folder;
  ASSERT_TRUE(std::filesystem::is_directory(corpus)) << corpus;
  int inputs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream body;
    body << in.rdbuf();
    EXPECT_EQ(check(body.str()), "") << entry.path();
    ++inputs;
  }
  EXPECT_GT(inputs, 0);
}

TEST(FuzzCorpus, SectionChecksHoldForEverySavedInput) {
  replay("corpus",
         [](const std::string& body) { return kodrune_fuzz::section_check_failure(body); });
}

TEST(FuzzCorpus, RpcAnswersEverySavedLine) {
  replay("rpc_corpus",
         [](const std::string& line) { return kodrune_fuzz::rpc_check_failure(line); });
}

}  // namespace
