#pragma once

#include <foundation/storage/vfs/Exception.hpp>

#include <utility>
#include <vector>

namespace vfs_test {

// The library code every provider code must become, by the provider code's value: the two
// enumerations order FileTooLarge, ResourceInUse and ReadOnlyProvider differently, and a value past
// the provider's enumeration is Unknown.
inline std::vector<std::pair<int, foundation::storage::vfs::ErrorCode>> libraryCodeOfProviderCode()
{
    using foundation::storage::vfs::ErrorCode;
    return {
        {0, ErrorCode::FolderNotEmpty},   {1, ErrorCode::InvalidLocation},
        {2, ErrorCode::PermissionDenied}, {3, ErrorCode::ResourceAlreadyExists},
        {4, ErrorCode::ResourceNotFound}, {5, ErrorCode::FileTooLarge},
        {6, ErrorCode::ResourceInUse},    {7, ErrorCode::ReadOnlyProvider},
        {8, ErrorCode::NoSpaceLeft},      {9, ErrorCode::IOError},
        {10, ErrorCode::InternalError},   {11, ErrorCode::UnsupportedOperation},
        {12, ErrorCode::Unknown},         {13, ErrorCode::Unknown},
    };
}

} // namespace vfs_test
