// Subcommands that live in their own file register here (e.g. cmd_checksum.cpp).
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <vector>

namespace ozrdc_tool {

// Each entry adds its subcommand (options and callback) to the app.
std::vector<std::function<void(CLI::App&)>>& extraCommands();

struct RegisterCommand {
    explicit RegisterCommand(std::function<void(CLI::App&)> add) { extraCommands().push_back(std::move(add)); }
};

// The exit status a subcommand callback asks for (0 unless set).
int& exitStatus();

}  // namespace ozrdc_tool
