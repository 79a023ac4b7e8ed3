#include "sshfileaccess/FileAccessException.hpp"

#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

FileAccessException::FileAccessException(ustring message, Code code)
    : message_(fl::i18n::ustring_to_utf8(message)), code_(code) {}

FileAccessException::FileAccessException(std::string message, Code code) : message_(std::move(message)), code_(code) {}

FileAccessException::~FileAccessException() = default;

foundation::core::except::IException* FileAccessException::clone() const { return new FileAccessException(*this); }

void FileAccessException::rethrow() const { throw FileAccessException(*this); }

const char* FileAccessException::what() const noexcept { return message_.c_str(); }

ustring FileAccessException::ToUstringImpl() const { return fl::i18n::utf8_to_ustring(message_); }

}  // namespace nimbal::remoteaccess::sshfileaccess
