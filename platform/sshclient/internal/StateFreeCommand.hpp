#pragma once
// Recognises command texts that the persistent shell may evaluate in itself
// instead of in a forked subshell: a fork costs more than the rest of a
// command's round trip on small machines, and the per-path queries are all of
// this kind ("test -e 'p' && echo 1").
//
// Accepted: simple commands joined by &&, || and ;, each naming one of the
// builtins test, [, echo, printf, true, false or : unquoted, with arguments
// made only of letters, digits, _ . / , : = + % @ -, single-quoted strings
// and backslash escapes. Nothing in such a text can expand, assign, redirect,
// read standard input, start a process, leave a job behind or end the shell;
// a malformed list (a leading, trailing or doubled operator, an open quote)
// is refused, since a syntax error inside eval would end the shell.

#include <string_view>

namespace foundation::sshclient::internal {

bool isStateFreeCommand(std::string_view command);

}  // namespace foundation::sshclient::internal
