// The process and others: what rights it runs with, running a program, and looking a process up by name.
#pragma once

#include "Krt/File/YPath.h"

#include <functional>
#include <vector>

namespace Krt::Environment {

/// Whether the process runs with privileges that its starter doesn't have (set-user-id and the like), so that
/// environment variables aren't to be trusted.
KRT_API bool IsPrivilegeRaised();

/// Runs a program and waits for its end. Returns its exit status, or 128 plus the number of the signal that
/// ended it. The program is a path, which is not searched for; the arguments reach it as they are, without a
/// shell. It inherits the environment and the descriptors 0 to 2 and no others, with no signal blocked and
/// none ignored. Raises the operating system's error if it can't be started, or if the process ignores
/// SIGCHLD and so gets no status, and InvalidArgument for an argument with a NUL byte in it. Any thread.
KRT_API int ExecuteProcess(const File::YPath& program, const std::vector<YString>& arguments);
/// The same with root's rights: as it is if the effective user is root, else through /usr/bin/sudo, whose own
/// status tells then that the rights were refused. With `unattended` it never asks for a password.
KRT_API int ExecuteProcessElevated(const File::YPath& program, const std::vector<YString>& arguments,
                                   bool unattended);

/// The id of a process with that name, which is the file name of its program or script; NotFound if there is
/// none. A shorter name than 15 bytes that the process gave its main thread counts, too. A process that has
/// ended and is still to be waited for doesn't count, the calling process only with `countsSelf`.
KRT_API int FindProcessByName(const YString& name, bool countsSelf);

/// Does what ExecuteProcess is to do.
using ProcessRunner = std::function<int(const File::YPath& program, const std::vector<YString>& arguments)>;
/// From now on all programs are run by this; an empty one goes back to running them. For tests: no other
/// thread may be running a program meanwhile.
KRT_API void SetProcessRunnerForTesting(ProcessRunner runner);

} // namespace Krt::Environment
