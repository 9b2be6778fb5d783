#pragma once

#include <functional>
#include <string>
#include <vector>

/// Runs a program and returns its exit status, or 128 plus the signal that ended it, or 126 if it cannot be
/// started; its standard input is empty. Throws Failure if no process can be made.
///
/// words        path of the program, looked for in PATH unless it has a slash, and its arguments
/// environment  lines NAME=VALUE; the whole environment of the program
/// directory    its working directory
/// line         is called for each line the program prints to standard output or standard error
int runProgram(const std::vector<std::string>& words, const std::vector<std::string>& environment,
               const std::string& directory, const std::function<void(const std::string&)>& line);
