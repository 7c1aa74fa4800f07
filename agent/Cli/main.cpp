#include "agent/Cli/AnswerWithin.h"
#include "agent/Cli/Program.h"

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
