#include "tools/sshfa/Generate.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <vector>

namespace sshfa::cli {
namespace {

struct OptionInfo {
  std::vector<std::string> names;  // "-H", "--host"
  std::string description;
  std::string valueName;  // empty for a flag
  bool takesFile = false;
  bool takesHost = false;
  std::string group;
};

struct CommandInfo {
  std::string name;
  std::string description;
  std::string usage;
  std::string footer;
  std::vector<OptionInfo> options;
};

std::vector<OptionInfo> optionsOf(CLI::App const& app) {
  std::vector<OptionInfo> infos;
  for (auto const* option : app.get_options()) {
    if (option->get_positional() || option->get_group().empty()) continue;
    OptionInfo info;
    for (auto const& name : option->get_snames()) info.names.push_back("-" + name);
    for (auto const& name : option->get_lnames()) info.names.push_back("--" + name);
    info.description = option->get_description();
    info.group = option->get_group();
    if (option->get_items_expected_min() > 0) {
      std::string const lname = option->get_lnames().empty() ? std::string() : option->get_lnames().front();
      info.takesHost = lname == "host" || lname == "jump";
      info.takesFile = lname == "identity" || lname == "known-hosts" || lname == "ssh-config" ||
                       lname == "exclude-from" || lname == "include-from";
      info.valueName = info.takesHost ? "HOST" : info.takesFile ? "FILE" : "VALUE";
      if (lname == "user") info.valueName = "USER";
      if (lname == "port") info.valueName = "PORT";
      if (lname == "keepalive" || lname == "connect-timeout") info.valueName = "SECONDS";
      if (lname == "files") info.valueName = "COUNT";
      if (lname == "exclude" || lname == "include") info.valueName = "PATTERN";
      if (lname == "filter") info.valueName = "RULE";
      if (lname == "bwlimit") info.valueName = "RATE";
      if (lname == "channels") info.valueName = "N";
    }
    infos.push_back(std::move(info));
  }
  return infos;
}

std::vector<CommandInfo> commandsOf(CLI::App const& app) {
  std::vector<CommandInfo> commands;
  for (auto const* sub : app.get_subcommands({})) {
    commands.push_back({sub->get_name(), sub->get_description(), usageLine(*sub), sub->get_footer(), optionsOf(*sub)});
  }
  return commands;
}

std::string joined(std::vector<std::string> const& parts, std::string const& separator) {
  std::string out;
  for (auto const& part : parts) out += (out.empty() ? "" : separator) + part;
  return out;
}

std::vector<std::string> allNames(std::vector<OptionInfo> const& options) {
  std::vector<std::string> names;
  for (auto const& option : options) names.insert(names.end(), option.names.begin(), option.names.end());
  return names;
}

// ---- bash ---------------------------------------------------------------------------

// The parts of the bash script that do not depend on the definition: the
// SSH configuration's Host aliases, the connection options of the words
// typed, and remote names through "sshfa --complete-remote".
constexpr char const* kBashHelpers = R"(# Host aliases of the SSH configuration (-F FILE when typed), without patterns.
_sshfa_hosts() {
  local i file key rest word files=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in -F|--ssh-config) files+=("${COMP_WORDS[i+1]}") ;; esac
  done
  [ ${#files[@]} -eq 0 ] && files=(~/.ssh/config /etc/ssh/ssh_config)
  for file in "${files[@]}"; do
    [ -r "$file" ] || continue
    while read -r key rest; do
      [[ ${key,,} == host ]] || continue
      read -ra rest <<< "$rest"
      for word in "${rest[@]}"; do [[ $word == *[*?!]* ]] || printf '%s\n' "$word"; done
    done < "$file"
  done
}

# Adds the words matching $1 to COMPREPLY, one element each.
_sshfa_add() { local word; while IFS= read -r word; do COMPREPLY+=("$word"); done; }
)";

std::string bash(CLI::App const& app) {
  auto const global = optionsOf(app);
  auto const commands = commandsOf(app);
  std::vector<std::string> commandNames;
  std::vector<std::string> valued;
  std::vector<std::string> files;
  std::vector<std::string> hosts;
  std::vector<std::string> connectionValued;
  std::vector<std::string> connectionFlags;
  std::vector<std::string> commandFiles;
  for (auto const& command : commands) {
    commandNames.push_back(command.name);
    for (auto const& option : command.options) {
      if (option.takesFile) commandFiles.insert(commandFiles.end(), option.names.begin(), option.names.end());
    }
  }
  std::sort(commandFiles.begin(), commandFiles.end());
  commandFiles.erase(std::unique(commandFiles.begin(), commandFiles.end()), commandFiles.end());
  for (auto const& option : global) {
    if (option.group == "Connection") {
      auto& list = option.valueName.empty() ? connectionFlags : connectionValued;
      list.insert(list.end(), option.names.begin(), option.names.end());
    }
    if (option.valueName.empty()) continue;
    valued.insert(valued.end(), option.names.begin(), option.names.end());
    if (option.takesFile) files.insert(files.end(), option.names.begin(), option.names.end());
    if (option.takesHost) hosts.insert(hosts.end(), option.names.begin(), option.names.end());
  }
  std::vector<std::string> otherValued;
  for (auto const& option : global) {
    if (!option.valueName.empty() && !option.takesFile && !option.takesHost) {
      otherValued.insert(otherValued.end(), option.names.begin(), option.names.end());
    }
  }
  std::ostringstream out;
  out << "# bash completion for sshfa, generated by sshfa --generate bash.\n"
      << kBashHelpers << "\n"
      << "_sshfa() {\n"
      << "  local cur=${COMP_WORDS[COMP_CWORD]} prev=\n"
      << "  [ \"$COMP_CWORD\" -gt 0 ] && prev=${COMP_WORDS[COMP_CWORD-1]}\n"
      << "  COMPREPLY=()\n"
      << "  local valued=' " << joined(valued, " ") << " '\n"
      << "  local connection=' " << joined(connectionValued, " ") << " '\n"
      << "  local connectionFlags=' " << joined(connectionFlags, " ") << " '\n"
      << "  # The command, its own options, and the connection options typed.\n"
      << "  local command= own= ownValued= conn=() remote=yes i word\n"
      << "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
      << "    word=${COMP_WORDS[i]}\n"
      << "    [ \"$word\" = --no-remote-completion ] && remote=\n"
      << "    if [ -n \"$command\" ] && [[ \" $own \" == *\" $word \"* ]]; then\n"
      << "      [[ \" $ownValued \" == *\" $word \"* ]] && ((i++))\n"
      << "      continue\n"
      << "    fi\n"
      << "    if [[ $connection == *\" $word \"* ]]; then conn+=(\"$word\" \"${COMP_WORDS[i+1]}\"); ((i++)); continue; "
         "fi\n"
      << "    if [[ $connectionFlags == *\" $word \"* ]]; then conn+=(\"$word\"); continue; fi\n"
      << "    if [[ $valued == *\" $word \"* ]]; then ((i++)); continue; fi\n"
      << "    [[ $word == -* || -n $command ]] && continue\n"
      << "    command=$word\n"
      << "    case $command in\n";
  for (auto const& command : commands) {
    std::vector<std::string> names;
    std::vector<std::string> ownValued;
    for (auto const& option : command.options) {
      if (option.names == std::vector<std::string>{"-h", "--help"}) continue;
      names.insert(names.end(), option.names.begin(), option.names.end());
      if (!option.valueName.empty()) ownValued.insert(ownValued.end(), option.names.begin(), option.names.end());
    }
    if (names.empty()) continue;
    out << "      " << command.name << ") own='" << joined(names, " ") << "' ownValued='" << joined(ownValued, " ")
        << "' ;;\n";
  }
  out << "    esac\n"
      << "    # Everything after exec is the remote command's.\n"
      << "    [ \"$command\" = exec ] && return\n"
      << "  done\n"
      << "  case $prev in\n";
  if (!files.empty()) out << "    " << joined(files, "|") << ") _sshfa_add < <(compgen -f -- \"$cur\"); return ;;\n";
  if (!hosts.empty()) {
    out << "    " << joined(hosts, "|")
        << ") _sshfa_add < <(compgen -A hostname -- \"$cur\"; compgen -W \"$(_sshfa_hosts)\" -- \"$cur\"); return ;;\n";
  }
  if (!otherValued.empty()) out << "    " << joined(otherValued, "|") << ") return ;;\n";
  out << "  esac\n"
      << "  if [[ \" $ownValued \" == *\" $prev \"* ]]; then\n";
  if (!commandFiles.empty()) {
    out << "    case $prev in " << joined(commandFiles, "|") << ") _sshfa_add < <(compgen -f -- \"$cur\") ;; esac\n";
  }
  out << "    return\n"
      << "  fi\n"
      << "  local global='" << joined(allNames(global), " ") << "'\n"
      << "  if [ -z \"$command\" ]; then\n"
      << "    if [[ $cur == -* ]]; then\n"
      << "      _sshfa_add < <(compgen -W \"$global\" -- \"$cur\")\n"
      << "    else\n"
      << "      _sshfa_add < <(compgen -W '" << joined(commandNames, " ") << "' -- \"$cur\")\n"
      << "    fi\n"
      << "    return\n"
      << "  fi\n"
      << "  if [[ $cur == -* ]]; then\n"
      << "    _sshfa_add < <(compgen -W \"$own $global\" -- \"$cur\")\n"
      << "    return\n"
      << "  fi\n"
      << "  case $command in put|get|sync) ;; *) _sshfa_add < <(compgen -f -- \"$cur\"); return ;; esac\n"
      << "  # HOST:PATH: bash splits the word at the colon; the whole of it is looked at.\n"
      << "  local full=$cur\n"
      << "  if [ \"$cur\" = : ] && [ \"$COMP_CWORD\" -ge 2 ]; then\n"
      << "    full=$prev:\n"
      << "  elif [ \"$prev\" = : ] && [ \"$COMP_CWORD\" -ge 3 ]; then\n"
      << "    full=${COMP_WORDS[COMP_CWORD-2]}:$cur\n"
      << "  fi\n"
      << "  local head=${full%%:*}\n"
      << "  if [[ $full == *:* && -n $head && $head != */* ]]; then\n"
      << "    # Remote names, when the host answers within a second.\n"
      << "    [ -n \"$remote\" ] || return\n"
      << "    local before=${full%\"$cur\"} name\n"
      << "    while IFS= read -r name; do COMPREPLY+=(\"${name#\"$before\"}\"); done < <(\n"
      << "      timeout 1 \"${COMP_WORDS[0]}\" \"${conn[@]}\" --batch --connect-timeout 1 --complete-remote \"$full\" "
         "2>/dev/null)\n"
      << "    compopt -o nospace 2>/dev/null\n"
      << "    return\n"
      << "  fi\n"
      << "  _sshfa_add < <(compgen -f -- \"$cur\")\n"
      << "  # Host aliases, to go on with HOST:.\n"
      << "  if [[ $cur != */* ]]; then\n"
      << "    local before=${#COMPREPLY[@]}\n"
      << "    _sshfa_add < <(compgen -S : -W \"$(_sshfa_hosts)\" -- \"$cur\")\n"
      << "    [ ${#COMPREPLY[@]} -gt \"$before\" ] && compopt -o nospace 2>/dev/null\n"
      << "  fi\n"
      << "  return 0\n"
      << "}\n"
      << "complete -o filenames -F _sshfa sshfa\n";
  return out.str();
}

// ---- zsh ----------------------------------------------------------------------------

// Text inside '...' of a zsh script, with the characters _arguments and
// _describe give a meaning escaped.
std::string zshText(std::string const& text, bool forDescribe) {
  std::string out;
  for (char const c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else if (c == '[' || c == ']' || (forDescribe && c == ':')) {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += ' ';
    } else {
      out += c;
    }
  }
  return out;
}

std::string zshSpecs(std::vector<OptionInfo> const& options, std::string const& indent) {
  std::string out;
  for (auto const& option : options) {
    std::string const exclusive = option.names.size() > 1 ? "(" + joined(option.names, " ") + ")" : std::string();
    std::string const names = option.names.size() > 1 ? "{" + joined(option.names, ",") + "}" : option.names.front();
    std::string action;
    if (!option.valueName.empty()) {
      action = ":" + option.valueName + ":" + (option.takesFile ? "_files" : option.takesHost ? "_hosts" : " ");
    }
    out += indent + "'" + exclusive + "'" + names + "'[" + zshText(option.description, false) + "]" + action + "' \\\n";
  }
  return out;
}

std::string zsh(CLI::App const& app) {
  auto const commands = commandsOf(app);
  std::ostringstream out;
  out << "#compdef sshfa\n"
      << "# zsh completion for sshfa, generated by sshfa --generate zsh.\n"
      << "# Host aliases of the SSH configuration, to go on with HOST:.\n"
      << "_sshfa_config_hosts() {\n"
      << "  local file key rest word\n"
      << "  local -a found\n"
      << "  for file in ~/.ssh/config /etc/ssh/ssh_config; do\n"
      << "    [[ -r $file ]] || continue\n"
      << "    while read -r key rest; do\n"
      << "      [[ ${key:l} == host ]] || continue\n"
      << "      for word in ${=rest}; do [[ $word == *[*?!]* ]] || found+=($word); done\n"
      << "    done < $file\n"
      << "  done\n"
      << "  compadd -S : -a found\n"
      << "}\n"
      << "_sshfa_operands() { _alternative 'files:file:_files' 'hosts:host:_sshfa_config_hosts'; }\n"
      << "_sshfa() {\n"
      << "  local curcontext=$curcontext state line ret=1\n"
      << "  local -a commands\n"
      << "  commands=(\n";
  for (auto const& command : commands) {
    out << "    '" << command.name << ":" << zshText(command.description, true) << "'\n";
  }
  out << "  )\n"
      << "  _arguments -C \\\n"
      << zshSpecs(optionsOf(app), "    ") << "    '(- *)'{-h,--help}'[Print help and exit]' \\\n"
      << "    '(- *)--version[Print the version and exit]' \\\n"
      << "    '1:command:->command' \\\n"
      << "    '*::argument:->argument' && ret=0\n"
      << "  case $state in\n"
      << "    command) _describe -t commands 'sshfa command' commands && ret=0 ;;\n"
      << "    argument)\n"
      << "      case $words[1] in\n";
  for (auto const& command : commands) {
    if (command.name == "exec") {
      out << "        exec) _normal && ret=0 ;;\n";
      continue;
    }
    bool const transfer = command.name == "put" || command.name == "get" || command.name == "sync";
    out << "        " << command.name << ") _arguments \\\n"
        << zshSpecs(command.options, "            ")
        << (transfer ? "            '*:operand:_sshfa_operands' && ret=0 ;;\n"
                     : "            '*:path:_files' && ret=0 ;;\n");
  }
  out << "      esac ;;\n"
      << "  esac\n"
      << "  return ret\n"
      << "}\n"
      << "_sshfa \"$@\"\n";
  return out.str();
}

// ---- man ----------------------------------------------------------------------------

// Text for troff: backslashes, hyphens and a leading dot or quote escaped.
std::string roff(std::string const& text) {
  std::string out;
  bool lineStart = true;
  for (char const c : text) {
    if (lineStart && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
    lineStart = c == '\n';
  }
  return out;
}

void manOptions(std::ostringstream& out, std::vector<OptionInfo> const& options) {
  for (auto const& option : options) {
    out << ".TP\n";
    std::vector<std::string> names;
    for (auto const& name : option.names) names.push_back("\\fB" + roff(name) + "\\fR");
    out << joined(names, ", ");
    if (!option.valueName.empty()) out << " \\fI" << option.valueName << "\\fR";
    out << "\n" << roff(option.description) << "\n";
  }
}

// put and get's filters, with examples; the options themselves come from
// the definition.
constexpr char const* kChoosingFiles =
    R"(put, get and sync take rsync's filter rules. They apply in the order given, and
the first that matches an entry decides; an entry no rule matches is taken.
Patterns see paths relative to the folder being sent.
  *        any run of characters but '/'; ** crosses folders; ? and [a-z] as in the shell
  name     matches at any depth; /name only at the top; dir/ folders only; a/b the end of a path
A folder left out is not read at all, so --include cannot bring back what
is inside it. --filter takes rsync's short rules: '- PATTERN' (exclude),
'+ PATTERN' (include), 'H'/'S' (this side only), 'P'/'R' (protect from
--delete, or not), '!' (clear). With --delete, what the rules leave out stays
on the destination; --delete-excluded removes it too. --gitignore reads every
.gitignore of the source tree with git's rules and leaves out .git itself.
A bad rule stops before anything is sent (exit status 2).
Examples:
  sshfa sync --exclude '*.o' --exclude build/ proj host:proj
  sshfa sync --include '*/' --include '*.c' --exclude '*' src host:src
  sshfa sync --exclude-from rules.txt proj host:proj
  sshfa sync --gitignore --delete proj host:proj
  sshfa sync -n -v --exclude '*.log' host:/srv/app ./app)";

// The hand-written sections of the manual page: pairs of a term and what it
// says, each shown as a tagged paragraph.
struct Entry {
  char const* term;
  char const* text;
};

constexpr Entry kExamples[] = {
    {"sshfa sync ./site build01:/srv/www/site",
     "Make /srv/www/site a copy of ./site. Run it again and only what changed moves; after Ctrl-C the same command "
     "continues the files it had begun."},
    {"sshfa sync --delete -n -v ./site build01:/srv/www/site",
     "Show every change a mirror would make, the unchanged files too, changing nothing."},
    {"sshfa sync build01:~/logs ./logs", "Bring ~/logs of the login on build01 here, as ./logs."},
    {"sshfa put ./site build01:/srv/www/",
     "Copy site into /srv/www, as scp does; with the trailing / this too repeats exactly."},
    {"sshfa put --bwlimit 1M -z big.iso build01:",
     "Copy big.iso into the login folder at most 1 MiB a second, over a compressed connection."},
    {"sshfa -H build01 exists /srv/ready && echo ready", "Exit status 0 only when every path exists."},
    {"sshfa -H build01 --json stat /srv/a.tar /srv/b.tar | jq '.[] | select(.exists) | .size'",
     "Sizes of the archives that exist, in one round trip."},
    {"printf 'hello\\n' | sshfa -H build01 --json exec 'wc -c'",
     "Run a command with standard input; its status and output as one JSON document."},
    {"sshfa -H build01 rm -- -odd-name", "Names that begin with - follow --, with every command."},
    {"sshfa --local ls -R ./site", "The same commands on this machine."},
};

constexpr Entry kFiles[] = {
    {"~/.ssh/config, /etc/ssh/ssh_config",
     "The SSH configuration, resolved by ssh -G where ssh is installed (-F FILE reads FILE instead)."},
    {"~/.ssh/known_hosts, /etc/ssh/ssh_known_hosts", "Host keys checked (--known-hosts FILE instead)."},
    {"DEST/.NAME.sshfa-partial-SIZE-MTIME",
     "A file being written by put, get or sync, beside its destination NAME, named after the source's size and "
     "modification time, and renamed into place once complete: a file never shows under its final name before it "
     "is. After Ctrl-C, SIGTERM or SIGHUP it keeps what arrived, and the next run of the same command continues it "
     "once SHA-256 shows that its bytes are the source's first; otherwise it starts over. --no-resume keeps nothing."},
    {"DEST/.NAME.sshfa-XXXXXXXX",
     "A temporary of a file that was just starting, left only after SIGKILL or a lost connection; the next run of the "
     "same transfer removes it. Temporaries of other names are never touched."},
    {"$TMPDIR/sshfa-demo-XXXXXX", "The demo's private server and trees; removed when it ends, also when interrupted."},
};

constexpr Entry kExitStatus[] = {
    {"0", "Success."},
    {"1",
     "An operation failed (the message names the path and the cause); exists, isfile or isdir answered false for a "
     "path; stat or ls met a missing path. A missing path given to rm is no failure, as with rm -f."},
    {"2", "Usage error: an unknown command or option, a missing operand, a bad filter rule or rate."},
    {"3",
     "Connection, host key or authentication failure, time-out or lost connection; an SSH configuration that cannot "
     "be read or resolved."},
    {"130",
     "Interrupted by SIGINT (Ctrl-C). Complete files stay; the files in flight keep their resumable "
     "temporaries."},
    {"143", "Interrupted by SIGTERM, as with SIGINT (SIGHUP: 129)."},
    {"other", "exec: the remote command's own status."},
};

void manEntries(std::ostringstream& out, char const* section, Entry const* begin, Entry const* end) {
  out << ".SH " << section << "\n";
  for (auto const* entry = begin; entry != end; ++entry) {
    out << ".TP\n\\fB" << roff(entry->term) << "\\fR\n" << roff(entry->text) << "\n";
  }
}

std::string man(CLI::App const& app) {
  std::ostringstream out;
  out << ".TH SSHFA 1 \"\" \"sshfa " SSHFA_VERSION "\" \"User Commands\"\n"
      << ".SH NAME\n"
      << "sshfa \\- " << roff(app.get_description()) << "\n"
      << ".SH SYNOPSIS\n"
      << ".B sshfa\n"
      << "[\\fIOPTIONS\\fR] \\fICOMMAND\\fR [\\fIOPTIONS\\fR] [\\fIOPERANDS\\fR...]\n"
      << ".SH DESCRIPTION\n"
      << "sshfa works on files of this machine and of one remote Unix host reached over SSH, many paths per round "
         "trip. Run \\fBsshfa \\fICOMMAND\\fB \\-\\-help\\fR for one command's help.\n"
      << ".SH OPTIONS\n";
  auto const global = optionsOf(app);
  std::vector<std::string> groups;
  for (auto const* option : app.get_options()) {
    std::string const group = option->get_group();
    if (!group.empty() && std::find(groups.begin(), groups.end(), group) == groups.end()) groups.push_back(group);
  }
  for (auto const& group : groups) {
    std::vector<OptionInfo> members;
    for (auto const* option : app.get_options()) {
      if (option->get_group() != group || option->get_positional()) continue;
      for (auto const& info : global) {
        if (!info.names.empty() && option->check_name(info.names.back())) members.push_back(info);
      }
    }
    if (members.empty()) continue;
    out << ".SS " << roff(group) << "\n";
    manOptions(out, members);
  }
  out << ".SH COMMANDS\n";
  for (auto const& command : commandsOf(app)) {
    std::string usage = command.usage;
    if (usage.rfind("Usage: ", 0) == 0) usage.erase(0, 7);
    out << ".SS \"" << roff(usage) << "\"\n" << roff(command.description) << "\n";
    std::vector<OptionInfo> own;
    for (auto const& option : command.options) {
      if (option.names != std::vector<std::string>{"-h", "--help"}) own.push_back(option);
    }
    manOptions(out, own);
    if (!command.footer.empty()) out << ".PP\n.nf\n" << roff(command.footer) << "\n.fi\n";
  }
  out << ".SH CHOOSING FILES\n.nf\n" << roff(kChoosingFiles) << "\n.fi\n";
  manEntries(out, "EXAMPLES", std::begin(kExamples), std::end(kExamples));
  manEntries(out, "FILES", std::begin(kFiles), std::end(kFiles));
  manEntries(out, "EXIT STATUS", std::begin(kExitStatus), std::end(kExitStatus));
  out << ".SH NOTES\n.nf\n" << roff(app.get_footer()) << "\n.fi\n";
  out << ".SH SEE ALSO\n\\fBssh\\fR(1), \\fBssh_config\\fR(5), \\fBscp\\fR(1), \\fBsftp\\fR(1), "
         "\\fBrsync\\fR(1), \\fBtest\\fR(1)\n";
  return out.str();
}

}  // namespace

std::string usageLine(CLI::App const& command) {
  std::istringstream help(command.help(command.get_parent() != nullptr ? command.get_parent()->get_name() : ""));
  for (std::string line; std::getline(help, line);) {
    if (line.rfind("Usage: ", 0) == 0) return line;
  }
  return "Usage: sshfa " + command.get_name();
}

std::string generated(CLI::App const& app, std::string const& kind) {
  if (kind == "bash") return bash(app);
  if (kind == "zsh") return zsh(app);
  return man(app);
}

}  // namespace sshfa::cli
