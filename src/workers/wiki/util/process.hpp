// Running a program without a shell, so no argument is ever interpreted.
#pragma once

#include <string>
#include <vector>

namespace zenthar_kodrune::workers::wiki::util {

// The output of a program run without a shell.
struct ProcessResult {
  int exit_code = -1;  // -1 when the program could not be started or was killed
  std::string out;
};

// Runs `argv` (argv[0] looked up on PATH) with standard input and standard
// error on /dev/null and returns its exit code and standard output.
ProcessResult run_process(const std::vector<std::string>& argv);

}  // namespace zenthar_kodrune::workers::wiki::util
