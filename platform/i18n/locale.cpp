// libstdc++ declares the generic ctype<CharT> and numpunct<CharT> members but
// defines them only for char and wchar_t, so a UTF-16 stream fails with
// std::bad_cast. These definitions give char16_t the classic "C" behaviour:
// ASCII classification and case mapping, '.' as decimal point, no grouping.
#include <array>
#include <locale>

#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace std {

template <>
ctype<char16_t>::~ctype() = default;

template <>
bool ctype<char16_t>::do_is(mask m, char16_t c) const {
  return c < 0x80 && use_facet<ctype<char>>(locale::classic()).is(m, static_cast<char>(c));
}

template <>
const char16_t* ctype<char16_t>::do_is(const char16_t* lo, const char16_t* hi, mask* vec) const {
  static const mask kAll[] = {space, print, cntrl, upper, lower, alpha, digit, punct, xdigit, blank};
  for (; lo < hi; ++lo, ++vec) {
    *vec = mask();
    for (const mask m : kAll) {
      if (do_is(m, *lo)) *vec = static_cast<mask>(*vec | m);
    }
  }
  return hi;
}

template <>
const char16_t* ctype<char16_t>::do_scan_is(mask m, const char16_t* lo, const char16_t* hi) const {
  while (lo < hi && !do_is(m, *lo)) ++lo;
  return lo;
}

template <>
const char16_t* ctype<char16_t>::do_scan_not(mask m, const char16_t* lo, const char16_t* hi) const {
  while (lo < hi && do_is(m, *lo)) ++lo;
  return lo;
}

template <>
char16_t ctype<char16_t>::do_toupper(char16_t c) const {
  return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - u'a' + u'A') : c;
}

template <>
const char16_t* ctype<char16_t>::do_toupper(char16_t* lo, const char16_t* hi) const {
  for (; lo < hi; ++lo) *lo = do_toupper(*lo);
  return hi;
}

template <>
char16_t ctype<char16_t>::do_tolower(char16_t c) const {
  return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

template <>
const char16_t* ctype<char16_t>::do_tolower(char16_t* lo, const char16_t* hi) const {
  for (; lo < hi; ++lo) *lo = do_tolower(*lo);
  return hi;
}

template <>
char16_t ctype<char16_t>::do_widen(char c) const {
  return static_cast<char16_t>(static_cast<unsigned char>(c));
}

template <>
const char* ctype<char16_t>::do_widen(const char* lo, const char* hi, char16_t* dest) const {
  for (; lo < hi; ++lo, ++dest) *dest = do_widen(*lo);
  return hi;
}

template <>
char ctype<char16_t>::do_narrow(char16_t c, char dfault) const {
  return c < 0x80 ? static_cast<char>(c) : dfault;
}

template <>
const char16_t* ctype<char16_t>::do_narrow(const char16_t* lo, const char16_t* hi, char dfault, char* to) const {
  for (; lo < hi; ++lo, ++to) *to = do_narrow(*lo, dfault);
  return hi;
}

template <>
numpunct<char16_t>::~numpunct() {
  delete _M_data;
}

template <>
void numpunct<char16_t>::_M_initialize_numpunct(__c_locale) {
  if (_M_data == nullptr) _M_data = new __numpunct_cache<char16_t>;
  _M_data->_M_grouping = "";
  _M_data->_M_grouping_size = 0;
  _M_data->_M_use_grouping = false;
  _M_data->_M_decimal_point = u'.';
  _M_data->_M_thousands_sep = u',';
  for (size_t i = 0; i < __num_base::_S_oend; ++i) {
    _M_data->_M_atoms_out[i] = static_cast<char16_t>(__num_base::_S_atoms_out[i]);
  }
  for (size_t i = 0; i < __num_base::_S_iend; ++i) {
    _M_data->_M_atoms_in[i] = static_cast<char16_t>(__num_base::_S_atoms_in[i]);
  }
  _M_data->_M_truename = u"true";
  _M_data->_M_truename_size = 4;
  _M_data->_M_falsename = u"false";
  _M_data->_M_falsename_size = 5;
}

}  // namespace std

namespace fl::i18n::facet {

const std::locale& get_global_std_locale() {
  static const std::locale loc = [] {
    std::locale l(std::locale::classic(), new std::ctype<char16_t>);
    l = std::locale(l, new std::numpunct<char16_t>);
    l = std::locale(l, new std::num_put<char16_t>);
    return std::locale(l, new std::num_get<char16_t>);
  }();
  return loc;
}

}  // namespace fl::i18n::facet
