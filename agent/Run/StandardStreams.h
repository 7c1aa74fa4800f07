// The process's standard input, output and error.
#pragma once

namespace Agent {

/// Opens what is closed of descriptors 0 to 2, so that no file of a store or a target gets one of them and is
/// written to as if it were the terminal. Their use still fails, as it would on a closed one. Called first.
void OpenMissingStreams();

/// Whether standard error is a terminal.
bool IsErrorTerminal();

/// The columns of the terminal that standard output is, 80 for one that doesn't tell; 0 if it is no terminal.
unsigned int OutputWidth();

} // namespace Agent
