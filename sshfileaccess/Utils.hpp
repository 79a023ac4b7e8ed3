#pragma once
// Free functions of the library: UTF-8/UTF-16 conversion, shell quoting,
// trimming and splitting of command output, path joining, copy lists, and the
// library's logger. All are stateless and reentrant except getLogger(), which
// creates the process-wide logger once (thread-safe). They throw only
// std::bad_alloc (and getLogger() what the logging library throws).

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/log/Logger.hpp"
#include "sshfileaccess/ustring.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

using Logger = foundation::log::basic_diagnostic_logger<char>;

// Severities the library writes.
inline constexpr Logger::severity_type kTraceSeverity = 4;            // commands and transfers
inline constexpr Logger::severity_type kSwallowedErrorSeverity = 16;  // a failure that was not thrown

// ---- text conversion -----------------------------------------------------------
SSHFA_EXPORT ustring str2ustr(std::string const& utf8);
SSHFA_EXPORT std::string ustr2str(ustring const& text);

// ---- shell quoting, trimming, splitting, joining ---------------------------------

// One single-quoted POSIX shell word: it's -> 'it'\''s'.
SSHFA_EXPORT ustring quoted(ustring const& text);
// Every element quoted, each preceded by one blank: [a, b] -> " 'a' 'b'".
SSHFA_EXPORT ustring quoted(std::vector<ustring> const& texts);
// Removes leading and trailing characters that are in `set` (a set of single
// characters, not a substring).
SSHFA_EXPORT ustring trim(ustring const& text, ustring const& set);
// Lines of command output: outer LF/CR runs removed, then cut at every LF.
SSHFA_EXPORT std::vector<ustring> split(ustring const& text);
// directory + "/" + name for every name; nothing is normalised.
SSHFA_EXPORT std::vector<ustring> fullfile(ustring const& directory, std::vector<ustring> const& names);
// A UTF-16 string stream imbued with the locale that carries char16_t facets.
SSHFA_EXPORT std::basic_stringstream<char16_t> ucharStringstream();

// ---- copy lists ------------------------------------------------------------------

// "src" -> "dst" in UTF-8, nothing escaped.
SSHFA_EXPORT std::string formatCopiedPaths(ustring const& source, ustring const& destination);
// Every pair's form followed by a tab (the last one too).
SSHFA_EXPORT std::string formatCopiedPaths(std::vector<std::pair<ustring, ustring>> const& pairs);
// Pairs sources[i] with destinations[i]; destinations must be at least as long.
SSHFA_EXPORT std::string formatCopiedPaths(std::vector<ustring> const& sources,
                                           std::vector<ustring> const& destinations);
SSHFA_EXPORT std::vector<std::pair<ustring, ustring>> makeCopyVector(ustring const& sourceDirectory,
                                                                     ustring const& destinationDirectory,
                                                                     std::vector<ustring> const& names);
SSHFA_EXPORT void addPathsToVector(std::vector<ustring>& paths, ustring const& directory,
                                   std::vector<ustring> const& names);

// ---- logging -----------------------------------------------------------------------

// The logger of the channel "nimbal::remoteaccess::sshfileaccess", created on
// first use. Enable severities with setEnabledSeverities() and add a
// Boost.Log sink to see records.
SSHFA_EXPORT Logger& getLogger();

// Writes one record at `severity`; `makeText` runs only when the severity is
// enabled, so a disabled trace costs no conversion or formatting.
template <class MakeText>
void logRecord(Logger::severity_type severity, MakeText&& makeText) {
  Logger& logger = getLogger();
  if (!logger.isEnabled(severity)) return;
  logger.write(severity, std::forward<MakeText>(makeText)());
}

}  // namespace nimbal::remoteaccess::sshfileaccess
