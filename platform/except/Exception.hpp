#pragma once
// Minimal exception framework (foundation::core::except).
//
// IException is the interface every framework exception implements: a heap
// copy and a rethrow (so exceptions can be stored and raised again), what()
// in UTF-8, and ToUstring() in UTF-16. IInternalException adds Boost.Exception's
// error-information container. Exception<Interface, StdBase> joins a framework
// interface with a standard exception base so one handler of either kind
// catches it. RuntimeError is the concrete type the platform layers throw,
// always through throwRuntimeError().
//
// All members are reentrant; objects are immutable after construction.

#include <boost/exception/exception.hpp>
#include <exception>
#include <string>

#include "sshfileaccess/export.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace foundation::core::except {

using fl::ustring;

class SSHFA_EXPORT IException {
 public:
  // Caller owns the returned copy.
  [[nodiscard]] virtual IException* clone() const = 0;
  [[noreturn]] virtual void rethrow() const = 0;
  virtual ~IException() = default;
  [[nodiscard]] virtual const char* what() const noexcept = 0;
  [[nodiscard]] virtual ustring convert_str(ustring const& text) const { return text; }
  [[nodiscard]] virtual ustring convert_str(std::string const& utf8) const { return fl::i18n::utf8_to_ustring(utf8); }

  [[nodiscard]] ustring ToUstring() const { return ToUstringImpl(); }

 protected:
  IException() = default;
  IException(IException const&) = default;
  IException& operator=(IException const&) = default;

 private:
  [[nodiscard]] virtual ustring ToUstringImpl() const = 0;
};

// Starts with no attached error information, no throw function or file, and
// throw line -1 (Boost.Exception's defaults).
class SSHFA_EXPORT IInternalException : public IException, public virtual boost::exception {
 protected:
  IInternalException() = default;
  IInternalException(IInternalException const&) = default;
  IInternalException& operator=(IInternalException const&) = default;
};

template <class Interface, class StdBase>
class Exception : public Interface, public StdBase {
 public:
  // One override serves both bases' what().
  [[nodiscard]] const char* what() const noexcept override = 0;

 protected:
  Exception() = default;
  Exception(Exception const&) = default;
  Exception& operator=(Exception const&) = default;
};

class SSHFA_EXPORT RuntimeError : public Exception<IInternalException, std::exception> {
 public:
  explicit RuntimeError(std::string utf8Message) : message_(std::move(utf8Message)) {}

  [[nodiscard]] IException* clone() const override { return new RuntimeError(*this); }
  [[noreturn]] void rethrow() const override { throw RuntimeError(*this); }
  [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }

 private:
  [[nodiscard]] ustring ToUstringImpl() const override { return fl::i18n::utf8_to_ustring(message_); }

  std::string message_;
};

// The one way platform layers report failures.
[[noreturn]] inline void throwRuntimeError(std::string utf8Message) { throw RuntimeError(std::move(utf8Message)); }

}  // namespace foundation::core::except
