// The functions that fmt's headers only declare. See Findfmt.cmake.
#include <fmt/format-inl.h>

namespace fmt::detail {

// format.h declares these templates as instantiated elsewhere.
template auto thousands_sep_impl<char>(locale_ref) -> thousands_sep_result<char>;
template auto decimal_point_impl<char>(locale_ref) -> char;

} // namespace fmt::detail
