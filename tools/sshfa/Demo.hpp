#pragma once
// sshfa demo: starts a private sshd on 127.0.0.1 with throwaway keys, and
// walks through the library with it — build a tree with awkward names, copy
// it up, list and stat it remotely, archive it there, copy it back, compare,
// show the timings — then removes everything it made and stops the server,
// also when interrupted with Ctrl-C or SIGTERM.

namespace sshfa::cli {

struct DemoSettings {
  int files = 300;
  // The tour on standard error, and one JSON document of what it found on
  // standard output.
  bool json = false;
};

// Returns the exit status: 0 when the copy came back identical.
int runDemo(DemoSettings const& settings);

}  // namespace sshfa::cli
