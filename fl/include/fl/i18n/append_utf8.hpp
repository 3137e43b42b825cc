#pragma once

#include <fl/export.hpp>
#include <fl/i18n/ustring.hpp>

#include <string_view>

namespace fl::i18n {

// As utf8_to_ustring, appending to `out`: readers that collect many names into one buffer convert
// without a string of their own per name. On ill-formed input conversion_error is thrown and `out`
// is left as it was.
VFS_EXPORT void append_utf8(ustring& out, std::string_view text);
// As native_to_ustring, appending to `out`; never throws on content.
VFS_EXPORT void append_native(ustring& out, std::string_view bytes);

} // namespace fl::i18n
