#include "sshfileaccess/platform/sshclient/internal/StateFreeCommand.hpp"

#include <gtest/gtest.h>

#include <string_view>

namespace {

using foundation::sshclient::internal::isStateFreeCommand;

TEST(StateFreeCommand, AcceptsTheQueriesOfTheRemoteBackend) {
  EXPECT_TRUE(isStateFreeCommand("test -e '/tmp' && echo 1"));
  EXPECT_TRUE(isStateFreeCommand("test -f '/a b/it'\\''s' && echo 1"));
  EXPECT_TRUE(isStateFreeCommand("test -d '/x\ny' && echo 1"));
  EXPECT_TRUE(isStateFreeCommand("test -e '' && echo 1"));
}

TEST(StateFreeCommand, AcceptsListsOfTheStateFreeBuiltins) {
  for (std::string_view const text :
       {"true", "false", ":", "echo", "echo hello", "printf '%s\\n' a b", "[ -e /tmp ]", "[ a = b ] || echo no",
        "test 1 -eq a", "echo a; echo b", "echo a ;echo b;", "echo a;", "  echo  a  ", "\techo\ta\t",
        "true&&false||echo x", "echo \\$HOME \\*", "echo a=b c,d e:f g%h i@j k+l m/n.o -p _q", "printf 'x'",
        ": 'anything $(here) `at` all'"}) {
    EXPECT_TRUE(isStateFreeCommand(text)) << text;
  }
}

TEST(StateFreeCommand, RefusesWhatCouldChangeTheShellOrStartAProcess) {
  for (std::string_view const text : {"cd /tmp",
                                      "x=1",
                                      "x=1 echo a",
                                      "export x",
                                      "set -e",
                                      "umask 077",
                                      "trap 'echo' EXIT",
                                      "alias a=b",
                                      "exit 3",
                                      "exec true",
                                      "return 1",
                                      "read x",
                                      "ls",
                                      "test -e a && ls",
                                      "echo a | cat",
                                      "echo a &",
                                      "echo a > f",
                                      "echo a 2>/dev/null",
                                      "echo a <f",
                                      "echo $HOME",
                                      "echo \"a\"",
                                      "echo `id`",
                                      "echo $(id)",
                                      "echo *",
                                      "echo a?",
                                      "echo ~",
                                      "echo [ab]",
                                      "echo {a,b}",
                                      "echo (a)",
                                      "! test -e a",
                                      "echo a # comment",
                                      "echo ä",
                                      "'test' -e a",
                                      "tests -e a",
                                      "[x",
                                      "echo a!",
                                      "if true; then echo; fi",
                                      "{ echo a; }",
                                      "(echo a)",
                                      "eval echo",
                                      ". /etc/profile",
                                      "echo a\\\nb"}) {
    EXPECT_FALSE(isStateFreeCommand(text)) << text;
  }
}

TEST(StateFreeCommand, RefusesMalformedListsThatWouldEndTheShell) {
  for (std::string_view const text :
       {"", " ", "&& echo a", "echo a &&", "echo a ||", "echo a && && echo b", "echo a;;", "; echo a", "echo 'open",
        "echo a\\", "echo a &&& echo b", "echo a |||| echo b", "echo a;; echo b"}) {
    EXPECT_FALSE(isStateFreeCommand(text)) << text;
  }
}

}  // namespace
