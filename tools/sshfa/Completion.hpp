#pragma once
// Remote names for the completion scripts: "sshfa [OPTIONS] --complete-remote
// HOST:PREFIX" connects (never asking anything, giving up after a second),
// lists the folder PREFIX names and prints one candidate a line, in the
// operand's own form: "HOST:dir/name", with a '/' after a folder. Names
// holding a line feed cannot be offered and are left out; what cannot be
// reached prints nothing.

#include <string>
#include <vector>

#include "tools/sshfa/Connection.hpp"

namespace sshfa::cli {

struct Candidate {
  std::string name;
  bool folder = false;
};

// The candidates for the path `typed` (what follows "HOST:") among the
// entries of its folder: the names that begin with its last part (hidden
// ones only when that part begins with '.'), sorted, each as `typed`'s
// folder part + name (+ '/').
std::vector<std::string> completionsFor(std::string const& typed, std::vector<Candidate> const& entries);

// The folder whose entries complete `typed`: its part up to the last '/'
// ("." for none: the login folder).
std::string completionFolder(std::string const& typed);

int completeRemote(ConnectionSettings settings, std::string const& word);

}  // namespace sshfa::cli
