#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "QsCommands.h"

// `qs`: inspects the wire format by hand. See README.md beside this file.
int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  auto readInput = [] {
    std::ios::sync_with_stdio(false);
    return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  };
  qs::tool::CommandResult result = qs::tool::runQs(args, readInput);
  std::fwrite(result.out.data(), 1, result.out.size(), stdout);
  std::fwrite(result.err.data(), 1, result.err.size(), stderr);
  return std::fflush(stdout) == 0 ? result.status : 1;
}
