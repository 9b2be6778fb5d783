#include "cli/command_line.h"
#include "cli/process.h"

int main(int argc, char** argv)
{
    maintenance::prepareProcess();
    return maintenance::runCommandLine(argc, argv);
}
