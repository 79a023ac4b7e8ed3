#pragma once
// The one exception type the library throws. Copyable, thrown by value.
// what() is UTF-8; ToUstring() is the same text in UTF-16. code() tells a
// local failure (LocalError) from a remote one (RemoteError).

#include <cstdint>
#include <string>

#include "sshfileaccess/platform/except/Exception.hpp"
#include "sshfileaccess/ustring.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

class SSHFA_EXPORT FileAccessException
    : public foundation::core::except::Exception<foundation::core::except::IInternalException, std::exception> {
 public:
  enum class Code : std::int32_t { LocalError = 0, RemoteError = 1 };

  // Converts the message to UTF-8 (the conversion's exceptions propagate).
  FileAccessException(ustring message, Code code);
  // Takes the bytes as they are, without validation.
  FileAccessException(std::string message, Code code);

  [[nodiscard]] foundation::core::except::IException* clone() const override;
  [[noreturn]] void rethrow() const override;
  ~FileAccessException() override;
  [[nodiscard]] const char* what() const noexcept override;
  [[nodiscard]] ustring ToUstringImpl() const override;

  [[nodiscard]] Code code() const noexcept { return code_; }

 private:
  std::string message_;
  Code code_;
};

}  // namespace nimbal::remoteaccess::sshfileaccess
