#include "sshfileaccess/RemotePath.hpp"

#include "sshfileaccess/platform/filesystem/Path.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

namespace fsd = fl::filesystem::detail;

ustring remoteParent(ustring const& path) {
  const ustring native = path.empty() ? ustring() : fsd::make_native_form(path, true);
  ustring parentPath = fsd::extract_parent_path(native);
  if (!parentPath.empty()) parentPath = fsd::make_native_form(parentPath, true);
  return fsd::make_generic_form(parentPath);
}

}  // namespace nimbal::remoteaccess::sshfileaccess
