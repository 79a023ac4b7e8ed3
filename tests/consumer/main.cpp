// Uses the installed headers and library the way an application does.
#include <sshfileaccess/FileAccess.hpp>
#include <sshfileaccess/FileAccessException.hpp>
#include <sshfileaccess/Utils.hpp>
#include <sshfileaccess/platform/sshclient/SSHClient.hpp>

#include <iostream>

int main() {
  namespace sfa = nimbal::remoteaccess::sshfileaccess;
  foundation::sshclient::SSHClientOptions const options;
  if (options.commandMode != foundation::sshclient::CommandMode::PersistentShell) return 1;
  const sfa::ustring q = sfa::quoted(sfa::str2ustr("it's"));
  if (sfa::ustr2str(q) != "'it'\\''s'") {
    std::cerr << "unexpected quoting: " << sfa::ustr2str(q) << '\n';
    return 1;
  }
  try {
    throw sfa::FileAccessException(std::string("remote failure"), sfa::FileAccessException::Code::RemoteError);
  } catch (sfa::FileAccessException const& e) {
    if (e.code() != sfa::FileAccessException::Code::RemoteError) return 1;
  }
  std::cout << "consumer ok\n";
  return 0;
}
