#include "tools/sshfa/RemoteArchive.hpp"

#include "sshfileaccess/Utils.hpp"

namespace sshfa::cli {
namespace {

fl::ustring operand(fl::ustring const& path) {
  return nimbal::remoteaccess::sshfileaccess::quoted(!path.empty() && path.front() == u'-' ? u"./" + path : path);
}

}  // namespace

fl::ustring zipLine(fl::ustring const& parent, fl::ustring const& name, fl::ustring const& archive) {
  return u"cd " + operand(parent) + u" && zip -q -r -y " + operand(archive) + u" " + operand(name) + u" >&2";
}

fl::ustring unzipLine(fl::ustring const& archive, fl::ustring const& folder) {
  return u"unzip -o " + operand(archive) + u" -d " + operand(folder);
}

}  // namespace sshfa::cli
