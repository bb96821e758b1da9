// The files of page/, which the program carries in itself: page and program are of one version.
#pragma once

#include <string_view>

namespace linkd
{

extern const std::string_view PAGE_INDEX_HTML;
extern const std::string_view PAGE_PAGE_JS;
extern const std::string_view PAGE_PAGE_CSS;

} // namespace linkd
