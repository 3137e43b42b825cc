#pragma once

#include <fl/export.hpp>

namespace foundation::storage::vfs::detail {

// The one translation of provider failures into the library's exceptions. Call it only from inside
// a catch handler; it rethrows the exception in flight and never returns:
//   provider::Exception                        -> Exception (location, mapped code, all contexts)
//   provider::ChangeEvents*Exception           -> the library's of the same name, cause nested
//   provider::ByteStream{Read,Write,Seek,Close}Failure -> IO{Read,Write,Seek,Close}Exception
//   anything else                              -> rethrown unchanged
[[noreturn]] VFS_EXPORT void translateProviderException();

// Runs `call` and hands any exception it throws to translateProviderException().
template <class Call>
decltype(auto) translated(Call&& call)
{
    try {
        return call();
    } catch (...) {
        translateProviderException();
    }
}

} // namespace foundation::storage::vfs::detail
