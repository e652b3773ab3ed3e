// What the command line does beyond CLI11: options stand before or after the command, each has its
// environment variable, help fits 80 columns, and errors name the word that was meant. Has no state
// of its own.
#pragma once

#include <CLI/CLI.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace ctl {

// Of the program, without its own name.
using Arguments = std::vector<std::string>;

// Help of `app`, and of the commands that it gets from now on, wraps at 80 columns.
void UseOwnHelp(CLI::App& app);

// The value must be a number from `least` to `most`, both included.
template <typename Number>
CLI::Validator Between(Number least, Number most) {
  std::ostringstream range;
  range.precision(12);
  range << least << " to " << most;
  const auto check = [least, most, text = range.str()](const std::string& word) {
    Number number{};
    if (CLI::detail::lexical_cast(word, number) && number >= least && number <= most) {
      return std::string();
    }
    return "\"" + word + "\" is no number from " + text;
  };
  return CLI::Validator(check, range.str());
}

// The value must be a whole number from 0 to 2^64 - 1. CLI11 alone takes -1 for the largest.
CLI::Validator Natural();

// The value must be one of these.
CLI::Validator OneOf(const std::vector<std::string>& words);

// The value must be above 0 and a year at most.
CLI::Validator Seconds();

// Null where there is none of that name.
CLI::App* FindCommand(CLI::App& app, const std::string& name);

// Puts the command before its options ("--json find" becomes "find --json") and gives each option
// of the command its variable, which CLI11 reads where the option is missing. Null where there is
// no command. Throws Failure (kUsage) for a word that is no command, and for an option that none
// has.
CLI::App* SelectCommand(CLI::App& app, Arguments& arguments);

// Once the command line is parsed: throws Failure (kUsage) where an option or a positional has a
// value that nobody meant. An empty one would count as left out, as of --units "$UNITS" in a script
// that has no UNITS; and "--log --exec mail" would write a file "--exec". What follows a positional
// COMMAND is its own affair.
void RefuseUnmeantValues(const CLI::App& command);

// The environment variables of a command's options: QZ640_TIMEOUT where all commands have the
// option, QZ640_RECORD_SECONDS where it is the command's own.
void NameVariables(CLI::App& command);

// The commands that help shows, in its order.
std::vector<CLI::App*> VisibleCommands(CLI::App& app);

// The first sentence of a command's description, for a list.
std::string Brief(const CLI::App& command);

// "TEXT", "NUMBER", "FILE": what stands for the value of an option; empty for a flag. "UNIT": the
// name of a positional.
std::string ValueName(const CLI::Option& option);

// What an option's description leaves unsaid: "50 to 600000; default 3000; QZ640_TIMEOUT".
std::string Remarks(const CLI::Option& option);

// What is wrong with the command line, and where to read on.
std::string UsageText(const CLI::App& app, const CLI::ParseError& error);

// Errors of the command line itself are for programs too.
bool WantsJson(const Arguments& arguments);

}  // namespace ctl
