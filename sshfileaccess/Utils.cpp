#include "sshfileaccess/Utils.hpp"

#include <memory>

#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

ustring str2ustr(std::string const& utf8) { return fl::i18n::utf8_to_ustring(utf8); }

std::string ustr2str(ustring const& text) { return fl::i18n::ustring_to_utf8(text); }

ustring quoted(ustring const& text) {
  static constexpr std::u16string_view kEscapedQuote = u"'\\''";
  ustring out;
  out.reserve(text.size() + 2);
  out.push_back(u'\'');
  for (const char16_t c : text) {
    if (c == u'\'') {
      out.append(kEscapedQuote);
    } else {
      out.push_back(c);
    }
  }
  out.push_back(u'\'');
  return out;
}

ustring quoted(std::vector<ustring> const& texts) {
  auto stream = ucharStringstream();
  for (auto const& text : texts) stream << u' ' << quoted(text);
  return stream.str();
}

ustring trim(ustring const& text, ustring const& set) {
  if (text.empty()) return {};
  const std::size_t first = text.find_first_not_of(set);
  if (first == ustring::npos) return {};
  const std::size_t last = text.find_last_not_of(set);
  return text.substr(first, last - first + 1);
}

std::vector<ustring> split(ustring const& text) {
  const ustring trimmed = trim(text, u"\n\r");
  std::vector<ustring> lines;
  if (trimmed.empty()) return lines;
  std::size_t begin = 0;
  for (;;) {
    const std::size_t end = trimmed.find(u'\n', begin);
    if (end == ustring::npos) {
      lines.push_back(trimmed.substr(begin));
      return lines;
    }
    lines.push_back(trimmed.substr(begin, end - begin));
    begin = end + 1;
  }
}

std::vector<ustring> fullfile(ustring const& directory, std::vector<ustring> const& names) {
  std::vector<ustring> paths;
  paths.reserve(names.size());
  addPathsToVector(paths, directory, names);
  return paths;
}

std::basic_stringstream<char16_t> ucharStringstream() {
  std::basic_stringstream<char16_t> stream(std::ios_base::in | std::ios_base::out);
  const std::locale& loc = fl::i18n::facet::get_global_std_locale();
  stream.imbue(loc);
  stream.rdbuf()->pubimbue(loc);
  return stream;
}

std::string formatCopiedPaths(ustring const& source, ustring const& destination) {
  std::string out(1, '"');
  out.append(ustr2str(source)).append("\" -> \"").append(ustr2str(destination)).append(1, '"');
  return out;
}

std::string formatCopiedPaths(std::vector<std::pair<ustring, ustring>> const& pairs) {
  std::string out;
  for (auto const& [source, destination] : pairs) {
    out += formatCopiedPaths(source, destination);
    out += '\t';
  }
  return out;
}

std::string formatCopiedPaths(std::vector<ustring> const& sources, std::vector<ustring> const& destinations) {
  std::ostringstream out;
  for (std::size_t i = 0; i < sources.size(); ++i) out << formatCopiedPaths(sources[i], destinations[i]) << '\t';
  return out.str();
}

std::vector<std::pair<ustring, ustring>> makeCopyVector(ustring const& sourceDirectory,
                                                        ustring const& destinationDirectory,
                                                        std::vector<ustring> const& names) {
  std::vector<std::pair<ustring, ustring>> pairs;
  pairs.reserve(names.size());
  for (auto const& name : names) {
    pairs.emplace_back(sourceDirectory + u'/' + name, destinationDirectory + u'/' + name);
  }
  return pairs;
}

void addPathsToVector(std::vector<ustring>& paths, ustring const& directory, std::vector<ustring> const& names) {
  for (auto const& name : names) paths.push_back(directory + u'/' + name);
}

Logger& getLogger() {
  static const std::unique_ptr<Logger> logger =
      nimbal::logging::createChannelLogger("nimbal::remoteaccess::sshfileaccess");
  return *logger;
}

}  // namespace nimbal::remoteaccess::sshfileaccess
