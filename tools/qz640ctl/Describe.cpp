#include "Describe.h"

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <vector>

#include "CommandTree.h"

namespace ctl {

namespace {

using Words = std::vector<std::string>;

// What can stand at a place of the command line.
struct Value {
  enum class Kind { Nothing, Any, Unit, File, Program, Choice };
  Kind kind = Kind::Any;
  Words choices;
  bool repeated = false;
};
using Kind = Value::Kind;

std::string Join(const Words& words, const std::string& between) {
  std::string all;
  for (const std::string& word : words)
    all += (all.empty() ? "" : between) + word;
  return all;
}

std::string Replace(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
    text.replace(at, what.size(), by);
  return text;
}

// "--seconds", or "-w" for what has no long name.
std::string NameOf(const CLI::Option& option) {
  const auto& names = option.get_lnames();
  return names.empty() ? "-" + option.get_snames().front() : "--" + names.front();
}

Words CommandNames(CLI::App& app) {
  Words names;
  for (const CLI::App* command : VisibleCommands(app))
    names.push_back(command->get_name());
  return names;
}

// CLI11 shows a set as "{44100,48000}"; the name says the rest.
Value ValueOf(CLI::App& app, const CLI::App& command, const CLI::Option& option) {
  Value value;
  value.repeated = option.get_items_expected_max() > 1;
  if (option.nonpositional() && option.get_items_expected_max() == 0) {
    value.kind = Kind::Nothing;
    return value;
  }
  const std::string type = option.get_type_name();
  const size_t open = type.find('{');
  const size_t close = type.find('}');
  if (open != std::string::npos && close != std::string::npos) {
    value.kind = Kind::Choice;
    std::istringstream all(type.substr(open + 1, close - open - 1));
    for (std::string choice; std::getline(all, choice, ',');)
      value.choices.push_back(choice);
    return value;
  }
  const std::string name = ValueName(option);
  if (name == "UNIT") value.kind = Kind::Unit;
  if (name == "FILE" || name == "SETTINGS" || name == "DIR") value.kind = Kind::File;
  if (name != "COMMAND") return value;
  const bool help = command.get_name() == "help";
  value.kind = help ? Kind::Choice : Kind::Program;
  if (help) value.choices = CommandNames(app);
  return value;
}

std::vector<const CLI::Option*> OptionsOf(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) {
    return option->nonpositional() && !option->get_group().empty();  // none that is hidden
  });
}

std::vector<const CLI::Option*> PositionalsOf(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

// The commands that have a positional of that kind.
Words CommandsWith(CLI::App& app, Kind kind) {
  Words names;
  for (const CLI::App* command : VisibleCommands(app)) {
    const auto all = PositionalsOf(*command);
    if (std::any_of(all.begin(), all.end(), [&](const CLI::Option* option) {
          return ValueOf(app, *command, *option).kind == kind;
        })) {
      names.push_back(command->get_name());
    }
  }
  return names;
}

// -- Manual pages. --

// A text as troff shows it unchanged. UTF-8 goes by its code points.
std::string Roff(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool lineBegins = i == 0 || text[i - 1] == '\n';
    if (lineBegins && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else if (c == '\'') {
      out += "\\(aq";
    } else if (c < 0x80) {
      out += text[i];
    } else {
      const int more = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : 1;
      uint32_t code = c & (0x3FU >> more);
      for (int part = 0; part < more && i + 1 < text.size(); ++part)
        code = code << 6 | (static_cast<unsigned char>(text[++i]) & 0x3FU);
      std::ostringstream hex;
      hex << std::uppercase << std::hex << code;
      out += "\\[u" + std::string(hex.str().size() < 4 ? 4 - hex.str().size() : 0, '0') +
             hex.str() + "]";
    }
  }
  return out;
}

std::string Bold(const std::string& text) {
  return "\\fB" + Roff(text) + "\\fR";
}

std::string Italic(const std::string& text) {
  return "\\fI" + Roff(text) + "\\fR";
}

// Lines that troff doesn't fill. An empty line goes as .sp: strict readers of manual pages complain
// about it otherwise.
std::string Block(const std::string& text) {
  std::string out = ".nf\n";
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    out += line.empty() ? ".sp\n" : Roff(line) + "\n";
  return out + ".fi\n";
}

std::string Header(const std::string& name, const std::string& section, const std::string& brief) {
  return ".\\\" Made by \"qz640ctl generate\": change the commands, not this page.\n.TH \"" +
         Roff(name) + "\" " + section +
         " \"" QZ_RELEASED "\" \"qz640emu " QZ_VERSION "\"\n.SH NAME\n" + Roff(brief) + "\n";
}

std::string ManOption(const CLI::Option& option) {
  std::string out = ".TP\n";
  Words names;
  for (const std::string& name : option.get_snames())
    names.push_back(Bold("-" + name));
  for (const std::string& name : option.get_lnames())
    names.push_back(Bold("--" + name));
  const std::string value = ValueName(option);
  out += option.nonpositional() ? Join(names, ", ") : Italic(value);
  if (option.nonpositional() && !value.empty()) out += " " + Italic(value);
  const std::string remarks = Remarks(option);
  return out + "\n" +
         Roff(option.get_description() + (remarks.empty() ? "" : " (" + remarks + ")")) + "\n";
}

std::string Usage(const CLI::App& command) {
  std::string out = Bold("qz640ctl " + command.get_name()) + " [" + Italic("OPTION") + " ...]";
  for (const CLI::Option* option : PositionalsOf(command)) {
    const std::string name =
        Italic(ValueName(*option)) + (option->get_items_expected_max() > 1 ? " ..." : "");
    out += option->get_required() ? " " + name : " [" + name + "]";
  }
  return out + "\n";
}

std::string Sentence(const std::string& text) {
  return text.ends_with('.') ? text : text + ".";
}

// What all commands have in common stands once.
bool IsCommon(const CLI::Option& option) {
  const Words common{"--help", "--json", "--timeout", "--verbose", "--quiet", "--no-color"};
  return std::find(common.begin(), common.end(), NameOf(option)) != common.end();
}

// What a command's help says at its end beside `notes`, which all of them have.
std::string OwnFooter(const CLI::App& command, const std::string& notes) {
  std::string footer = Replace(command.get_footer(), notes, "");
  while (footer.ends_with('\n'))
    footer.pop_back();
  return footer;
}

// -- Shells. --

std::string SingleQuoted(const std::string& text, const std::string& quote) {
  return "'" + Replace(text, "'", quote) + "'";
}

// One word of the language in which the bash script says what stands at a place.
std::string BashPlace(const Value& value) {
  const std::string end = value.repeated ? "*" : "";
  switch (value.kind) {
    case Kind::Unit:
      return "unit" + end;
    case Kind::File:
      return "file" + end;
    case Kind::Program:
      return "program" + end;
    case Kind::Choice:
      return "=" + Join(value.choices, ",") + end;
    case Kind::Any:
    case Kind::Nothing:
      break;
  }
  return "any" + end;
}

// A text that stands in brackets or between colons for _arguments of zsh.
std::string ZshText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

std::string ZshAction(const Value& value) {
  switch (value.kind) {
    case Kind::Unit:
      return "_qz640ctl_units";
    case Kind::File:
      return "_files";
    case Kind::Program:
      return "_command_names -e";
    case Kind::Choice:
      return "(" + Join(value.choices, " ") + ")";
    case Kind::Any:
    case Kind::Nothing:
      break;
  }
  return " ";
}

std::string ZshArguments(CLI::App& app, const CLI::App& command) {
  std::string out;
  const auto add = [&out](const std::string& spec) {
    out += " \\\n        " + SingleQuoted(spec, "'\\''");
  };
  for (const CLI::Option* option : OptionsOf(command)) {
    const Value value = ValueOf(app, command, *option);
    std::string spec = NameOf(*option) + "[" + ZshText(option->get_description()) + "]";
    if (value.kind != Kind::Nothing) spec += ":" + ValueName(*option) + ":" + ZshAction(value);
    add((option->get_items_expected_max() > 1 ? "*" : "") + spec);
  }
  for (const CLI::Option* option : PositionalsOf(command)) {
    const Value value = ValueOf(app, command, *option);
    add((value.repeated ? "*:" : ":") + ValueName(*option) + ":" + ZshAction(value));
  }
  return out;
}

}  // namespace

std::string ManPage(CLI::App& app, const std::string& notes) {
  std::string out =
      Header("QZ640CTL", "1", "qz640ctl - find, drive and hear QZ-640 network audio units");
  out += ".SH SYNOPSIS\n" + Bold("qz640ctl") + " " + Italic("COMMAND") + " [" + Italic("OPTION") +
         " ...]\n.SH DESCRIPTION\n" + Roff(Sentence(app.get_description())) +
         "\nA command is one request, a measurement or a view; each has an example.\n";
  out += ".SH OPTIONS\nThese are options of all commands.\n";
  for (const CLI::Option* option : OptionsOf(*VisibleCommands(app).front())) {
    if (IsCommon(*option)) out += ManOption(*option);
  }
  for (const CLI::Option* option : OptionsOf(app)) {
    if (!IsCommon(*option)) out += ManOption(*option);
  }
  out += ".SH COMMANDS\n";
  for (const CLI::App* command : VisibleCommands(app)) {
    out += ".SS " + Roff(command->get_name()) + "\n" + Usage(*command) + ".PP\n" +
           Roff(Sentence(command->get_description())) + "\n";
    for (const CLI::Option* option : PositionalsOf(*command))
      out += ManOption(*option);
    for (const CLI::Option* option : OptionsOf(*command)) {
      if (!IsCommon(*option)) out += ManOption(*option);
    }
    out += ".PP\n" + Block(OwnFooter(*command, notes));
  }
  out += ".SH NOTES\n" + Block(notes);
  out += ".SH ENVIRONMENT\nEach option names its variable. Besides:\n.TP\n" + Bold("NO_COLOR") +
         "\nno colours, whatever it holds\n.TP\n" + Bold("XDG_STATE_HOME") + "\nwhere " +
         Bold("qz640ctl/") + " keeps what is borrowed from units while a command runs\n";
  return out + ".SH SEE ALSO\n.BR qz640emu.json (5)\n";
}

std::string SettingsManPage() {
  return Header("QZ640EMU.JSON", "5", "qz640emu.json - settings of the emulator qz640emu") +
         R"page(.SH DESCRIPTION
The emulator takes no arguments.
It reads the file that has its own name and ".json" appended, beside its executable, fills in what
is missing and writes the file back at every start, in one line of UTF\-8 without a byte order mark.
.PP
Without a file it writes one with the defaults and no units; the next start gives it one default
unit.
A file that can't be taken in stays as it is, and one line on the console says what is wrong and
where; the run goes on with the defaults and without units.
.B qz640ctl doctor
looks at a file and says what stands in the way.
.SH KEYS
.TP
.BR AddrStr " (text, default empty)"
local IPv4 address that everything listens on: an interface's own address, or 0.0.0.0 for all.
Empty: the program hears nothing.
.TP
.BR BasePort " (number, default 8000)"
control port of the first unit.
A unit takes 2 ports for control and 2 for each input and output, the next unit those after them.
Output
.I i
listens on the unit's first port + 2 + 2
.IR i .
.TP
.BR BroadcastPort " (number, default 15001)"
discovery port, one for all units.
.TP
.BR units " (array of objects, default none)"
a unit each, with the keys below.
.SH KEYS OF A UNIT
.TP
.BR UnitType " (text, default QZ610)"
QZ610: one input and one output; QZ820: four inputs with an FM tuner each.
Any other text is a unit without inputs and outputs.
.TP
.BR UnitId " (text, default emulator1)"
the unit's name.
.TP
.BR SampleFreq " (number, default 48000)"
48000 or 44100; any other ends the run with one line that says so.
.TP
.BR Mode " (number, default 0)"
what the inputs send: 0 received audio or silence; 1 a ramp; 2 a ramp on the left only; 3 and 4 as 1
and 2 with the level sweeping in 10 seconds.
.TP
.BR Speed " (number, default 1.0)"
multiplies the unit's clock.
.SH EXAMPLE
.nf
{"AddrStr":"0.0.0.0","units":[{"UnitType":"QZ820","UnitId":"tuner\-1"}]}
.fi
.SH SEE ALSO
.BR qz640ctl (1)
)page";
}

std::string BashCompletion(CLI::App& app) {
  Words valued;
  std::string places;
  std::string commands;
  for (const CLI::App* command : VisibleCommands(app)) {
    Words options;
    for (const CLI::Option* option : OptionsOf(*command)) {
      options.push_back(NameOf(*option));
      const Value value = ValueOf(app, *command, *option);
      if (value.kind == Kind::Nothing) continue;
      if (std::find(valued.begin(), valued.end(), options.back()) != valued.end()) continue;
      valued.push_back(options.back());
      places +=
          "    " + options.back() + ") echo " + SingleQuoted(BashPlace(value), "'\\''") + " ;;\n";
    }
    Words positionals;
    for (const CLI::Option* option : PositionalsOf(*command))
      positionals.push_back(BashPlace(ValueOf(app, *command, *option)));
    commands += "    " + command->get_name() +
                ")\n      options=" + SingleQuoted(Join(options, " "), "'\\''") +
                "\n      places=(" +
                (positionals.empty() ? "" : "'" + Join(positionals, "' '") + "'") + ")\n      ;;\n";
  }
  std::string out = R"sh(# bash completion for qz640ctl. Made by "qz640ctl generate bash".

# What the option $1 takes; status 1 for one without a value.
_qz640ctl_value() {
  case $1 in
)sh" + places + R"sh(    *) return 1 ;;
  esac
}

# Candidates for $cur of the kind $1. Nothing evaluates the names of units, which come from the
# network.
_qz640ctl_candidates() {
  local one
  case $1 in
    unit*)
      while IFS= read -r one; do
        [[ $one != "$cur"* ]] || COMPREPLY+=("$(printf %q "$one")")
      done < <("$program" generate units "${to[@]}" 2>/dev/null)
      ;;
    file*)
      compopt -o filenames 2>/dev/null
      while IFS= read -r one; do COMPREPLY+=("$one"); done < <(compgen -f -- "$cur")
      ;;
    program*)
      while IFS= read -r one; do COMPREPLY+=("$one"); done < <(compgen -c -- "$cur")
      ;;
    =*)
      one=${1#=}
      one=${one%'*'}
      while IFS= read -r one; do COMPREPLY+=("$one"); done < <(compgen -W "${one//,/ }" -- "$cur")
      ;;
  esac
}

# bash parts words at ":" and "=" too; the words of the line itself are what the program gets.
_qz640ctl() {
  local words=() to=() places=() program=${COMP_WORDS[0]} cur='' command='' options='' wanted=''
  local word place=0 i
  read -ra words <<<"${COMP_LINE:0:COMP_POINT}"
  [[ ${COMP_LINE:COMP_POINT-1:1} == ' ' ]] || { cur=${words[-1]}; unset 'words[-1]'; }
  while [[ ${words[-1]} == *\\ ]]; do
    cur="${words[-1]%\\} $cur"
    unset 'words[-1]'
  done
  cur=${cur//\\/}
  cur=${cur#[\"\']}
  COMPREPLY=()
  for ((i = 1; i < ${#words[@]}; i++)); do
    word=${words[i]}
    while [[ $word == *\\ && i+1 -lt ${#words[@]} ]]; do word="${word%\\} ${words[++i]}"; done
    if [[ -n $wanted ]]; then
      [[ $wanted != --to ]] || to=(--to "$word")
      wanted=''
    elif [[ $word == -- && $command == up ]]; then
      place=0 options=''
      command=--
    elif [[ $word == -?* && $command != -- ]]; then
      ! _qz640ctl_value "$word" >/dev/null || wanted=$word
    elif [[ -z $command ]]; then
      command=$word
    else
      ((++place))
    fi
  done
  case $command in
    '') options=')sh" +
                    Join(CommandNames(app), " ") +
                    R"sh( --help --version' ;;
    --) places=(program file*) ;;
)sh" + commands + R"sh(  esac
  if [[ -n $wanted ]]; then
    _qz640ctl_candidates "$(_qz640ctl_value "$wanted")"
  elif [[ -z $command || $cur == -* ]]; then
    _qz640ctl_candidates "=$options"
  elif ((place < ${#places[@]})); then
    _qz640ctl_candidates "${places[place]}"
  elif ((${#places[@]} > 0)) && [[ ${places[-1]} == *'*' ]]; then
    _qz640ctl_candidates "${places[-1]}"
  fi
  local head=${cur%"${cur##*[=:]}"}
  COMPREPLY=("${COMPREPLY[@]#"$head"}")
}
complete -F _qz640ctl qz640ctl
)sh";
  return out;
}

std::string ZshCompletion(CLI::App& app) {
  std::string names;
  std::string cases;
  for (const CLI::App* command : VisibleCommands(app)) {
    names +=
        "    " + SingleQuoted(command->get_name() + ":" + ZshText(Brief(*command)), "'\\''") + "\n";
    cases += "    " + command->get_name() + ")\n      _arguments" + ZshArguments(app, *command) +
             "\n      ;;\n";
  }
  return R"sh(#compdef qz640ctl
# Made by "qz640ctl generate zsh".

_qz640ctl_units() {
  local -a units
  units=("${(@f)$(qz640ctl generate units ${opt_args[--to]:+--to} ${opt_args[--to]} 2>/dev/null)}")
  [[ -z $units ]] || compadd -a units
}

_qz640ctl() {
  local line state
  local -A opt_args
  local -a commands=(
)sh" + names +
         R"sh(  )
  _arguments -C '--help[Help]' '--version[The version of this program]' \
    '1:COMMAND:->command' '*::argument:->argument'
  if [[ $state == command ]]; then
    _describe -t commands command commands
    return
  fi
  case $line[1] in
)sh" + cases +
         R"sh(  esac
}

# Read by the shell itself, or found by it in $fpath.
if [[ $funcstack[1] == _qz640ctl ]]; then
  _qz640ctl "$@"
else
  compdef _qz640ctl qz640ctl
fi
)sh";
}

std::string FishCompletion(CLI::App& app) {
  const auto quoted = [](const std::string& text) {
    return SingleQuoted(Replace(text, "\\", "\\\\"), "\\'");
  };
  std::string out = R"(# fish completion for qz640ctl. Made by "qz640ctl generate fish".
complete -c qz640ctl -f
)";
  const auto within = [](const std::string& names) {
    return "complete -c qz640ctl -n '__fish_seen_subcommand_from " + names + "'";
  };
  const std::string first = "complete -c qz640ctl -n 'not __fish_seen_subcommand_from " +
                            Join(CommandNames(app), " ") + "'";
  out += first + " -l version -d 'The version of this program'\n";
  for (const CLI::App* command : VisibleCommands(app)) {
    const std::string name = command->get_name();
    out += first + " -a " + name + " -d " + quoted(Brief(*command)) + "\n";
    for (const CLI::Option* option : OptionsOf(*command)) {
      const Value value = ValueOf(app, *command, *option);
      out += within(name);
      for (const std::string& shortName : option->get_snames())
        out += " -s " + shortName;
      for (const std::string& longName : option->get_lnames())
        out += " -l " + longName;
      if (value.kind == Kind::File) out += " -r -F";
      if (value.kind == Kind::Any || value.kind == Kind::Choice) out += " -x";
      if (value.kind == Kind::Choice) out += " -a " + quoted(Join(value.choices, " "));
      out += " -d " + quoted(option->get_description()) + "\n";
    }
    for (const CLI::Option* option : PositionalsOf(*command)) {
      const Value value = ValueOf(app, *command, *option);
      if (value.kind != Kind::Choice) continue;
      out += within(name) + " -a " + quoted(Join(value.choices, " ")) + "\n";
    }
  }
  out += within(Join(CommandsWith(app, Kind::Unit), " ")) +
         " -a '(qz640ctl generate units 2>/dev/null)'\n";
  out += within(Join(CommandsWith(app, Kind::File), " ")) + " -F\n";
  const Words programs = CommandsWith(app, Kind::Program);
  return out + within(Join(programs, " ")) + " -a '(__fish_complete_command)'\n";
}

std::string PowerShellCompletion(CLI::App& app) {
  const auto quoted = [](const std::string& text) { return SingleQuoted(text, "''"); };
  std::string out =
      R"sh(# PowerShell completion for qz640ctl. Made by "qz640ctl generate powershell".
Register-ArgumentCompleter -Native -CommandName qz640ctl, qz640ctl.exe -ScriptBlock {
  param($word, $line, $cursor)
  $commands = [ordered]@{
)sh";
  for (const CLI::App* command : VisibleCommands(app)) {
    Words options;
    for (const CLI::Option* option : OptionsOf(*command))
      options.push_back(quoted(NameOf(*option)));
    out += "    " + quoted(command->get_name()) + " = @(" + Join(options, ", ") + ")\n";
  }
  out += "  }\n  $units = @(";
  Words withUnits;
  for (const std::string& name : CommandsWith(app, Kind::Unit))
    withUnits.push_back(quoted(name));
  return out + Join(withUnits, ", ") + R"sh()
  $words = @($line.CommandElements | Select-Object -Skip 1 | ForEach-Object { "$_" })
  $command = $words | Where-Object { $commands.Contains($_) } | Select-Object -First 1
  if (-not $command -or $command -eq $word) {
    $all = @($commands.Keys) + '--help', '--version'
  } elseif ($word -like '-*') {
    $all = $commands[$command]
  } elseif ($units -contains $command) {
    $program = $line.GetCommandName()  # without the quotes that a path with blanks has
    $all = @(& $program generate units 2>$null)
  } else {
    return
  }
  foreach ($one in $all) {
    if (-not $one.StartsWith($word)) { continue }
    $text = $one
    if ($one -notmatch '^[\w.-]+$') { $text = "'" + $one.Replace("'", "''") + "'" }
    [System.Management.Automation.CompletionResult]::new($text, $one, 'ParameterValue', $one)
  }
}
)sh";
}

}  // namespace ctl
