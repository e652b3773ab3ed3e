// The commands' own tree in the forms that other programs read: manual pages, completions of
// shells. So they can't part from what the program takes.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace ctl {

// man(7). `notes` stands at the end of each command's help, and once in the page.
std::string ManPage(CLI::App& app, const std::string& notes);

// The page of the emulator's settings file.
std::string SettingsManPage();

// Each is a script that the shell reads. Names of units come from "qz640ctl generate units"; they
// are whatever somebody on the network says, so no script lets its shell evaluate them.
std::string BashCompletion(CLI::App& app);
std::string ZshCompletion(CLI::App& app);
std::string FishCompletion(CLI::App& app);
std::string PowerShellCompletion(CLI::App& app);

}  // namespace ctl
