#include <foundation/storage/provider/Attributes.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <bit>
#include <cstdint>
#include <type_traits>

namespace foundation::storage::provider {

namespace detail {

static_assert(sizeof(boost::posix_time::ptime) == sizeof(std::int64_t) &&
                  std::is_trivially_copyable_v<boost::posix_time::ptime>,
              "StoredTime keeps a ptime as its bytes");

StoredTime::StoredTime(const boost::posix_time::ptime& time) noexcept
    : m_representation(std::bit_cast<std::int64_t>(time))
{
}

boost::posix_time::ptime StoredTime::get() const noexcept
{
    return std::bit_cast<boost::posix_time::ptime>(m_representation);
}

} // namespace detail

boost::posix_time::ptime FileAttributes::getLastModified() const noexcept
{
    return m_lastModified.get();
}

boost::posix_time::ptime FolderAttributes::getLastModified() const noexcept
{
    return m_lastModified.get();
}

} // namespace foundation::storage::provider
