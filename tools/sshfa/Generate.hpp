#pragma once
// The bash and zsh completion scripts and the manual page, made from the one
// definition of the command line (the CLI11 app), so that they cannot drift
// from what the tool accepts. The build runs "sshfa --generate KIND" and
// installs the results. Pure functions of the app; thread-safe.

#include <string>

namespace CLI {
class App;
}

namespace sshfa::cli {

// kind: "bash", "zsh" or "man" (troff for man(1)).
std::string generated(CLI::App const& app, std::string const& kind);

// "Usage: sshfa stat [OPTIONS] PATH...", as the command's help shows it.
std::string usageLine(CLI::App const& command);

}  // namespace sshfa::cli
