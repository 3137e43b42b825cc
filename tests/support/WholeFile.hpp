#pragma once

#include <foundation/storage/vfs/IODevice.hpp>

#include <string>

namespace vfs_test {

// The whole content of `file`, read through the library's own device; failures arrive as the
// library throws them.
inline std::string readWhole(const foundation::storage::vfs::File& file)
{
    foundation::storage::vfs::IODevice device(file);
    std::string content;
    char chunk[8192];
    for (std::streamsize got; (got = device.read(chunk, sizeof chunk)) > 0;)
        content.append(chunk, static_cast<std::size_t>(got));
    device.close();
    return content;
}

} // namespace vfs_test
