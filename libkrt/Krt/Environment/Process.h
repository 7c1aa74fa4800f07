#pragma once

/// @file
/// The privileges of this process, running a program, and finding a process by name.

#include "Krt/File/YPath.h"

#include <functional>
#include <vector>

namespace Krt::Environment {

/// Returns true if the process has privileges that the process which started it does not have (set-user-ID
/// and similar). Environment variables are not trusted then.
KRT_API bool IsPrivilegeRaised();
/// Returns true if the effective user is root.
KRT_API bool IsRoot();

/// Runs a program and waits for its end. Returns its exit status, or 128 plus the number of the signal that
/// ended it. `program` is a path, which is not searched for. The arguments are passed unchanged, without a
/// shell. The program inherits the environment and the descriptors 0 to 2 only, with no signal blocked or
/// ignored. Raises the operating system's error if the program cannot be started, or if this process
/// ignores SIGCHLD and so gets no status. Raises InvalidArgument for an argument with a NUL byte. Any
/// thread.
KRT_API int ExecuteProcess(const File::YPath& program, const std::vector<YString>& arguments);
/// Runs a program with root's rights; see ExecuteProcess. If the effective user is not root, it is run by
/// /usr/bin/sudo, whose own exit status reports that the rights were refused. With `unattended` it never
/// asks for a password.
KRT_API int ExecuteProcessElevated(const File::YPath& program, const std::vector<YString>& arguments,
                                   bool unattended);

/// Runs a program and returns its exit status, as ExecuteProcess does.
using ProcessRunner = std::function<int(const File::YPath& program, const std::vector<YString>& arguments)>;
/// Builds the command line of ExecuteProcessElevated, with sudo if it is needed, and returns what `runner`
/// returns for it.
KRT_API int ExecuteProcessElevated(const File::YPath& program, const std::vector<YString>& arguments,
                                   bool unattended, const ProcessRunner& runner);

/// Returns the ID of a process with that name, which is the file name of its program or script. A name of
/// fewer than 15 bytes that the process gave its main thread also counts. Zombies do not count; the calling
/// process counts only with `countsSelf`. Raises NotFound if there is no such process.
KRT_API int FindProcessByName(const YString& name, bool countsSelf);

} // namespace Krt::Environment
