#include "tools/sshfa/Json.hpp"

#include "tools/sshfa/Text.hpp"

namespace sshfa::cli {
namespace {

template <class Items, class Each>
void writeMembers(std::string& out, Items const& items, char open, char close, bool expanded, Each each) {
  out += open;
  bool first = true;
  for (auto const& item : items) {
    out += first ? (expanded ? "\n  " : "") : (expanded ? ",\n  " : ", ");
    first = false;
    each(item);
  }
  if (expanded && !first) out += '\n';
  out += close;
}

// Everything below the top level stays on one line.
void writeInline(std::string& out, Json const& value) {
  if (value.is_object()) {
    writeMembers(out, value.items(), '{', '}', false, [&](auto const& member) {
      out += jsonString(member.key());
      out += ": ";
      writeInline(out, member.value());
    });
  } else if (value.is_array()) {
    writeMembers(out, value, '[', ']', false, [&](Json const& element) { writeInline(out, element); });
  } else if (value.is_string()) {
    out += jsonString(value.get_ref<std::string const&>());
  } else {
    out += value.dump();
  }
}

}  // namespace

std::string document(Json const& value) {
  std::string out;
  if (value.is_object()) {
    writeMembers(out, value.items(), '{', '}', true, [&](auto const& member) {
      out += jsonString(member.key());
      out += ": ";
      writeInline(out, member.value());
    });
  } else if (value.is_array()) {
    writeMembers(out, value, '[', ']', true, [&](Json const& element) { writeInline(out, element); });
  } else {
    writeInline(out, value);
  }
  out += '\n';
  return out;
}

Json jsonName(fl::ustring const& name) { return raw(name); }

Json jsonNames(std::vector<fl::ustring> const& names) {
  Json out = Json::array();
  for (auto const& name : names) out.push_back(raw(name));
  return out;
}

}  // namespace sshfa::cli
