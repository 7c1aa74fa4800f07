#include "agent/Cli/Program.h"
#include "agent/Run/AnswerWithin.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    const int exitCode = Agent::Run(argc, argv);
    if (Agent::g_isThreadLeftBehind) {
        std::fflush(nullptr);
        std::_Exit(exitCode);
    }
    return exitCode;
}
