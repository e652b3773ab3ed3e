#include "CommandTree.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <sstream>

#include "ExitStatus.h"

namespace ctl {

namespace {

constexpr size_t kColumns = 80;
constexpr size_t kTextColumn = 24;  // where descriptions begin

// The options that mean the same in all commands that have them, by their long names.
constexpr std::pair<const char*, const char*> kSharedVariables[] = {
    {"json", "QZ640_JSON"},         {"timeout", "QZ640_TIMEOUT"},   {"verbose", "QZ640_VERBOSE"},
    {"quiet", "QZ640_QUIET"},       {"no-color", "QZ640_NO_COLOR"}, {"to", "QZ640_DISCOVERY"},
    {"local", "QZ640_LOCAL"},       {"take", "QZ640_TAKE"},         {"idle", "QZ640_IDLE"},
    {"emulator", "QZ640_EMULATOR"}, {"pid", "QZ640_PID"},
};

// `text` in lines of at most kColumns, all but the first beginning at `column`.
std::string Wrap(const std::string& text, size_t column) {
  std::string wrapped;
  size_t at = column;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (at > column && at + 1 + word.size() > kColumns) {
      wrapped += "\n" + std::string(column, ' ');
      at = column;
    } else if (at > column) {
      wrapped += ' ';
      ++at;
    }
    wrapped += word;
    at += word.size();
  }
  return wrapped;
}

// A row of a list: name, and description beside it or, where the name is long, below.
std::string Row(const std::string& name, const std::string& description) {
  std::string row = "  " + name;
  if (row.size() + 2 > kTextColumn) row += "\n";
  const size_t begin = row.ends_with('\n') ? 0 : row.size();
  if (description.empty()) return row.ends_with('\n') ? row : row + "\n";
  return row + std::string(kTextColumn - begin, ' ') + Wrap(description, kTextColumn) + "\n";
}

class Help : public CLI::Formatter {
 public:
  std::string make_description(const CLI::App* app) const override {
    return Wrap(app->get_description(), 0) + "\n\n";
  }
  std::string make_option(const CLI::Option* option, bool positional) const override {
    std::string name = option->get_name(positional, !positional);
    const std::string value = positional ? "" : ValueName(*option);
    if (!value.empty()) name += " " + value;
    const std::string remarks = Remarks(*option);
    return Row(name, option->get_description() + (remarks.empty() ? "" : " (" + remarks + ")"));
  }
  std::string make_subcommand(const CLI::App* command) const override {
    return Row(command->get_name(), Brief(*command));
  }
};

// Letters to insert, drop, replace or swap with their neighbour until one word is the other
// (optimal string alignment).
size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> of(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) {
    for (size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        of[i][j] = i + j;
        continue;
      }
      const size_t replaced = of[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      of[i][j] = std::min({of[i - 1][j] + 1, of[i][j - 1] + 1, replaced});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        of[i][j] = std::min(of[i][j], of[i - 2][j - 2] + 1);
      }
    }
  }
  return of[a.size()][b.size()];
}

// "; did you mean find?", or nothing where no candidate is near: a third of the letters may be
// wrong, or the word may be the beginning of one candidate alone.
std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates) {
  std::string nearest;
  size_t least = std::max<size_t>(1, word.size() / 3) + 1;
  size_t begun = 0;
  std::string beginning;
  for (const std::string& candidate : candidates) {
    if (candidate.starts_with(word)) {
      ++begun;
      beginning = candidate;
    }
    // Words whose lengths differ by more can't be nearer.
    if (candidate.size() + least <= word.size() || word.size() + least <= candidate.size())
      continue;
    const size_t distance = Distance(word, candidate);
    if (distance >= least) continue;
    least = distance;
    nearest = candidate;
  }
  if (nearest.empty() && begun == 1) nearest = beginning;
  return nearest.empty() ? "" : "; did you mean " + nearest + "?";
}

bool IsOption(const std::string& word) {
  return word.size() > 1 && word.front() == '-';
}

std::string NameOf(const std::string& word) {
  return word.substr(0, word.find('='));
}

const CLI::Option* FindOption(const CLI::App& app, const std::string& word) {
  const auto options =
      app.get_options([&](const CLI::Option* option) { return option->check_name(NameOf(word)); });
  return options.empty() ? nullptr : options.front();
}

void AddOptionNames(const CLI::App& app, std::vector<std::string>& names) {
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames())
      names.push_back("--" + name);
  }
}

std::string UnknownOption(const CLI::App& command, const std::string& word) {
  std::vector<std::string> names;
  AddOptionNames(command, names);
  return command.get_name() + " has no option " + NameOf(word) + DidYouMean(NameOf(word), names);
}

// Where to read on; `command` may be empty.
std::string See(const std::string& command) {
  return " (see qz640ctl " + (command.empty() ? "" : command + " ") + "--help)";
}

// " (from QZ640_TIMEOUT)" where the value of the option, which may be null, comes from there.
std::string Origin(const CLI::Option* option) {
  if (!option || option->get_envname().empty()) return {};
  const char* value = std::getenv(option->get_envname().c_str());
  const auto results = option->results();
  if (!value || results.size() != 1 || results.front() != value) return {};
  return " (from " + option->get_envname() + ")";
}

// Where a command has an option of that name: whether a value follows it. Nothing where none has.
std::optional<bool> TakesValue(const CLI::App& app, const std::string& word) {
  if (FindOption(app, word)) return false;
  for (const CLI::App* command : app.get_subcommands({})) {
    const CLI::Option* option = FindOption(*command, word);
    if (option) return option->get_items_expected_max() > 0 && word.find('=') == std::string::npos;
  }
  return std::nullopt;
}

Failure IsEmpty(const CLI::App& command, const std::string& name) {
  return {kUsage, command.get_name() + ": " + name + " is empty; give it a value" +
                      (name.starts_with('-') ? ", or leave it out" : "") + See(command.get_name())};
}

// CLI11 would take the next word for the value of "--to=".
void RefuseMissingValues(const CLI::App& command, const Arguments& arguments) {
  for (const std::string& word : arguments) {
    if (word == "--") return;
    if (word.starts_with("--") && word.ends_with('=') && FindOption(command, word)) {
      throw IsEmpty(command, NameOf(word));
    }
  }
}

}  // namespace

void UseOwnHelp(CLI::App& app) {
  app.formatter(std::make_shared<Help>());
  app.get_formatter()->label("SUBCOMMAND", "COMMAND");
  app.get_formatter()->label("Positionals", "Arguments");
}

CLI::App* FindCommand(CLI::App& app, const std::string& name) {
  const auto found =
      app.get_subcommands([&](const CLI::App* command) { return command->get_name() == name; });
  return found.empty() ? nullptr : found.front();
}

CLI::Validator OneOf(const std::vector<std::string>& words) {
  std::string list;
  for (const std::string& word : words)
    list += (list.empty() ? "" : ",") + word;
  const auto check = [words, list](const std::string& word) {
    if (std::find(words.begin(), words.end(), word) != words.end()) return std::string();
    return "\"" + word + "\" is none of " + list;
  };
  return CLI::Validator(check, "{" + list + "}");  // as CLI11 itself shows a set
}

CLI::Validator Natural() {
  const auto check = [](const std::string& word) {
    uint64_t number = 0;
    const char* end = word.data() + word.size();
    const auto parsed = std::from_chars(word.data(), end, number);
    if (parsed.ec == std::errc() && parsed.ptr == end) return std::string();
    return "\"" + word + "\" is no whole number from 0 to 18446744073709551615";
  };
  return CLI::Validator(check, "from 0 on");
}

CLI::Validator Seconds() {
  constexpr double kYear = 365.0 * 24 * 3600;
  const auto check = [](const std::string& word) {
    double number = 0;
    const bool isNumber = CLI::detail::lexical_cast(word, number);
    if (isNumber && number > 0 && number <= kYear) return std::string();
    return "\"" + word + "\" is no length in seconds, above 0 and a year at most";
  };
  return CLI::Validator(check, "above 0");
}

// What stands before the command is an option or the value of one; whether a value follows is asked
// of whichever command has the option.
CLI::App* SelectCommand(CLI::App& app, Arguments& arguments) {
  size_t at = 0;
  for (; at < arguments.size() && IsOption(arguments[at]) && arguments[at] != "--"; ++at) {
    const auto takesValue = TakesValue(app, arguments[at]);
    if (!takesValue) {
      std::vector<std::string> names;
      for (const CLI::App* command : app.get_subcommands({}))
        AddOptionNames(*command, names);
      throw Failure{kUsage, "no command has an option " + NameOf(arguments[at]) +
                                DidYouMean(NameOf(arguments[at]), names) + See("")};
    }
    if (*takesValue) ++at;
  }
  if (at >= arguments.size() || arguments[at] == "--") return nullptr;

  std::vector<std::string> names;
  for (const CLI::App* command : VisibleCommands(app))
    names.push_back(command->get_name());
  CLI::App* command = FindCommand(app, arguments[at]);
  if (!command) {
    throw Failure{kUsage, "there is no command \"" + arguments[at] + "\"" +
                              DidYouMean(arguments[at], names) + See("")};
  }
  const auto begin = arguments.begin();
  const auto place = begin + static_cast<std::ptrdiff_t>(at);
  std::rotate(begin, place, place + 1);
  RefuseMissingValues(*command, arguments);
  NameVariables(*command);
  return command;
}

void RefuseUnmeantValues(const CLI::App& command) {
  for (const CLI::Option* option : command.get_options()) {
    const std::string name = option->get_name();
    const auto& words = option->results();
    const bool isFree = name == "COMMAND" && !words.empty() && !words.front().empty();
    for (const std::string& word : words) {
      if (word.empty() && !isFree) throw IsEmpty(command, name);
      const bool isOption = word == "--" || (IsOption(word) && FindOption(command, word));
      if (!isOption || !option->nonpositional()) continue;
      throw Failure{kUsage, command.get_name() + ": " + name + " needs a value, and \"" + word +
                                "\" is none (a file of that name is ./" + word + ")" +
                                See(command.get_name())};
    }
  }
}

void NameVariables(CLI::App& command) {
  for (CLI::Option* option : command.get_options()) {
    const bool shown = !option->get_lnames().empty() && !option->get_group().empty();
    if (!shown || option == command.get_help_ptr()) continue;
    const std::string name = option->get_lnames().front();
    const auto shared = std::find_if(std::begin(kSharedVariables), std::end(kSharedVariables),
                                     [&](const auto& one) { return name == one.first; });
    std::string variable = "QZ640_" + command.get_name() + "_" + name;
    if (shared != std::end(kSharedVariables)) variable = shared->second;
    for (char& c : variable)
      c = c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    option->envname(variable);
  }
}

std::vector<CLI::App*> VisibleCommands(CLI::App& app) {
  return app.get_subcommands([](CLI::App* command) { return !command->get_group().empty(); });
}

std::string Brief(const CLI::App& command) {
  const std::string description = command.get_description();
  return description.substr(0, description.find(". "));
}

std::string ValueName(const CLI::Option& option) {
  if (!option.nonpositional()) return option.get_name(true, false);
  if (option.get_items_expected_max() == 0) return {};
  const std::string type = option.get_type_name();
  const std::string name = type.substr(0, type.find(':'));
  return name == "INT" || name == "UINT" || name == "FLOAT" ? "NUMBER" : name;
}

std::string Remarks(const CLI::Option& option) {
  std::string remarks;
  const auto add = [&remarks](const std::string& remark) {
    if (!remark.empty()) remarks += (remarks.empty() ? "" : "; ") + remark;
  };
  // A positional that is needed stands without brackets in the usage line; an option doesn't.
  if (option.get_required() && option.nonpositional()) add("required");
  const std::string type = option.get_type_name();
  const size_t colon = type.find(':');
  std::string range = colon == std::string::npos ? "" : type.substr(colon + 1);
  std::erase_if(range, [](char c) { return c == '{' || c == '}'; });
  add(range);
  if (!option.get_default_str().empty()) add("default " + option.get_default_str());
  for (const CLI::Option* other : option.get_excludes())
    add("not with " + other->get_name());
  add(option.get_envname());
  return remarks;
}

// CLI11 says which value is missing or wrong, but suggests no word that was meant. So words that it
// couldn't place are reported first: of an unknown option it takes the value for a positional.
std::string UsageText(const CLI::App& app, const CLI::ParseError& error) {
  const auto parsed = app.get_subcommands();
  if (parsed.empty()) return "a command is needed" + See("");
  const CLI::App& command = *parsed.front();
  const std::string see = See(command.get_name());
  const Arguments left = command.remaining();
  const auto unknown = std::find_if(left.begin(), left.end(), [](const std::string& word) {
    return IsOption(word) && word != "--";
  });
  if (unknown != left.end()) return UnknownOption(command, *unknown) + see;

  const std::string what = error.what();
  if (dynamic_cast<const CLI::ExtrasError*>(&error) && !left.empty()) {
    return command.get_name() + " takes no \"" + left.front() + "\"" + see;
  }
  const std::string unconverted = "Could not convert: ";
  const size_t equals = what.find(" = ");
  if (what.starts_with(unconverted) && equals != std::string::npos) {
    const size_t begin = unconverted.size();
    const std::string name = what.substr(begin, equals - begin);
    const CLI::Option* option = command.get_option_no_throw(name);
    const bool isFlag = option && option->get_items_expected_max() == 0;
    return command.get_name() + ": " + name + " takes " + (isFlag ? "true or false" : "a number") +
           ", not \"" + what.substr(equals + 3) + "\"" + Origin(option) + see;
  }
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) && what.ends_with(" missing")) {
    return command.get_name() + ": " + what.substr(0, what.find(':')) + " needs a value" + see;
  }
  const CLI::Option* option = command.get_option_no_throw(what.substr(0, what.find(':')));
  return command.get_name() + ": " + what + Origin(option) + see;
}

bool WantsJson(const Arguments& arguments) {
  const auto end = std::find(arguments.begin(), arguments.end(), "--");
  if (std::find(arguments.begin(), end, "--json") != end) return true;
  const char* variable = std::getenv("QZ640_JSON");
  bool wants = false;
  return variable && CLI::detail::lexical_cast(std::string(variable), wants) && wants;
}

}  // namespace ctl
