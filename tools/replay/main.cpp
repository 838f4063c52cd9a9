#include <iostream>

#include "tools/replay/ReplayCommand.h"

int main(int argc, char** argv) {
    return RunReplayCommand(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}
