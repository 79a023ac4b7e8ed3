#include "tools/sshfa/Cli.hpp"

int main(int argc, char** argv) { return sshfa::cli::run(argc, argv); }
