// The program: its subcommands and exit codes.
#pragma once

namespace Agent {

/// Runs one subcommand and returns the exit code: 0 all done, 1 could not run, 2 wrong usage, 3 done with
/// some entries failed, 4 the answer to a question is no.
int Run(int argc, char** argv);

} // namespace Agent
