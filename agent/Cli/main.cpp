#include "agent/Cli/Program.h"

int main(int argc, char** argv)
{
    return Agent::Run(argc, argv);
}
