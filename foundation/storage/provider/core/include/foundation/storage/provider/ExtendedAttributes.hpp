#pragma once

#include <foundation/storage/provider/Attributes.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace foundation::storage::provider {

// What a storage knows beyond the everyday attributes; each field is empty where the storage has
// no such notion.
struct ExtendedAttributes {
    std::optional<boost::posix_time::ptime> lastAccessed;
    std::optional<boost::posix_time::ptime> statusChanged;
    std::optional<std::uint32_t> posixMode; // permission and type bits
    std::optional<std::uint32_t> ownerId;
    std::optional<std::uint32_t> groupId;
    std::optional<std::uint64_t> linkCount;
    std::optional<std::uint64_t> device;
    std::optional<std::uint64_t> inode;
    std::optional<std::uint64_t> allocatedBytes;
    // Named extended attributes (POSIX xattrs: "user.comment" -> value bytes) where the storage keeps
    // them; empty where it keeps none.
    std::map<std::string, std::string> namedAttributes;
    friend bool operator==(const ExtendedAttributes&, const ExtendedAttributes&) = default;
};

} // namespace foundation::storage::provider
