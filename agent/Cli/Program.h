// The program: its subcommands and exit codes.
#pragma once

namespace Agent {

/// Runs one subcommand and returns the exit code:
///   - 0 all done, 1 could not run, 2 wrong usage, 3 done with some entries failed, 4 the answer is no
///   - 10 there is no repository, 11 it is locked, 12 its password is wrong
///   - 128 plus the number of the signal that interrupted it
///   - 128 plus SIGPIPE, without a message, if the reader of standard output has ended
int Run(int argc, char** argv);

} // namespace Agent
