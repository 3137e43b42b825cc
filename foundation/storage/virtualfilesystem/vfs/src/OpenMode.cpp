#include <foundation/storage/vfs/OpenMode.hpp>

#include <foundation/core/except/Exception.hpp>
#include <foundation/core/except/ThrowInternal.hpp>

#include <ios>
#include <stdexcept>

namespace foundation::storage::vfs {

namespace {

constexpr int in = static_cast<int>(std::ios_base::in);
constexpr int out = static_cast<int>(std::ios_base::out);
constexpr int app = static_cast<int>(std::ios_base::app);
constexpr int trunc = static_cast<int>(std::ios_base::trunc);
constexpr int ate = static_cast<int>(std::ios_base::ate);
constexpr int binary = static_cast<int>(std::ios_base::binary);
constexpr int decisive = in | out | app | trunc;

[[noreturn]] void badMode(const char* message)
{
    core::except::throwInternal(std::runtime_error(message));
}

} // namespace

OpenMode::OpenMode(int const& mode)
    : m_openMode((mode & decisive) == app || (mode & decisive) == (in | app) ? mode | out : mode),
      m_atEnd((mode & ate) != 0), m_binary((mode & binary) != 0)
{
}

bool OpenMode::isReadOnly() const noexcept
{
    return (m_openMode & (in | out)) == in;
}

provider::ByteStreamOpenOptions OpenMode::toByteStreamOpenOptions() const
{
    const provider::ByteStreamCreation creation = detail::toByteStreamCreate(m_openMode);
    const provider::ByteStreamAccess access = detail::toByteStreamAccess(m_openMode);
    return provider::ByteStreamOpenOptions{access, creation, (m_openMode & trunc) ? 0u : 1u, (m_openMode & app) ? 0u : 1u};
}

namespace detail {

provider::ByteStreamAccess toByteStreamAccess(int mode)
{
    switch (mode & (in | out)) {
    case out:
        return provider::ByteStreamAccess::Write;
    case in | out:
        return provider::ByteStreamAccess::ReadWrite;
    default:
        badMode("toByteStreamAccess called with bad openmode");
    }
}

provider::ByteStreamCreation toByteStreamCreate(int mode)
{
    switch (mode & decisive) {
    case out:
    case in | out:
        return provider::ByteStreamCreation::OpenExisting;
    case out | app:
    case out | trunc:
    case in | out | app:
    case in | out | trunc:
        return provider::ByteStreamCreation::CreateIfMissing;
    default:
        badMode("toByteStreamCreate called with bad openmode");
    }
}

} // namespace detail

} // namespace foundation::storage::vfs
