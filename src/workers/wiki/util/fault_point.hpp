// Named points where a crash would leave the most to recover: between a
// store commit and the file it promises, between a log append and the note
// that it was made, between a build's writes and their commit. In the
// product every point does nothing. The crash tests link a program whose
// `fault_point` kills the process with SIGKILL (or pauses it until the test
// lets it go on) at the point named by the environment, so a child dies
// exactly there rather than where a timer happened to fire.
#pragma once

namespace zenthar_kodrune::workers::wiki::util {

// Defined weak as a no-op; a strong definition linked into a program wins.
void fault_point(const char* name);

}  // namespace zenthar_kodrune::workers::wiki::util
