#pragma once
// Archive library (velmar::io::archive::core): writes tar and zip archives of
// regular files or of whole trees, and unpacks tar (plain or compressed) and
// zip archives.
//
// Names are ustring and reach the OS and the archive as the lossless UTF-8 of
// fl::i18n, so entry names that are not valid UTF-8 survive a round trip.
//
// Extraction never writes outside the destination folder: an entry whose
// name or hard-link target is absolute or holds a ".." element, and an entry
// that would be written through a symbolic link, is refused. The refusal
// ends the extraction with an exception naming the entry; entries before it
// stay extracted.
//
// Failures throw foundation::core::except::RuntimeError carrying the archive
// path, the entry where there is one, and the archive library's message.
// Nothing already written is cleaned up. No state; calls on different
// archives may run in parallel.

#include <vector>

#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace velmar::io::archive::core {

// Writes a new archive at `archivePath` ("tar" or "zip" `format`) holding the
// regular file files[i] under the name entryNames[i], names taken exactly as
// given. The lists must have equal length. Returns the entry names written.
std::vector<fl::ustring> createArchive(fl::ustring const& archivePath, std::vector<fl::ustring> const& files,
                                       std::vector<fl::ustring> const& entryNames, fl::ustring const& format);

// Like createArchive, but each paths[i] is stored as what it is, never
// followed: a folder as a folder entry (its name ending in '/'), a symbolic
// link as a link with its target text, a regular file with its bytes; each
// with its permission bits, modification time and owner. Any other kind of
// file (FIFO, socket, device) fails the call, naming it. The archive being
// written is left out where it is met.
std::vector<fl::ustring> createTreeArchive(fl::ustring const& archivePath, std::vector<fl::ustring> const& paths,
                                           std::vector<fl::ustring> const& entryNames, fl::ustring const& format);

// Unpacks every entry beneath `destinationFolder`, which is created when
// missing; existing files are replaced. `format` restricts what is read
// ("tar" or "zip"; empty reads either, detected from the contents);
// `passphrase` decrypts encrypted zip entries (empty: none). Returns the
// paths written, in archive order.
std::vector<fl::ustring> extractArchive(fl::ustring const& archivePath, fl::ustring const& destinationFolder,
                                        fl::ustring const& format, fl::ustring const& passphrase);

}  // namespace velmar::io::archive::core
