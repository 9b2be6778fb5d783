#include "kit/cli/program.h"

int main(int argc, char** argv) { return maintenance::kit::runProgram(argc, argv); }
