#include "apps/navoxctl/commands.h"
#include "apps/navoxctl/system_windows.h"

#include <iostream>
#include <vector>

int main(int argc, char** argv)
{
    const std::vector<std::string_view> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    navoxctl::WindowsSystem system;
    return navoxctl::Run(arguments, system, std::cout, std::cerr);
}
