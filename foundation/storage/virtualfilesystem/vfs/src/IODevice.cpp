#include <foundation/storage/vfs/IODevice.hpp>

#include <foundation/storage/vfs/detail/Logger.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include "StreamAccess.hpp"

#include <boost/throw_exception.hpp>

#include <stdexcept>
#include <string>

namespace foundation::storage::vfs {

namespace {

using foundation::log::category_arguments;
using foundation::log::category_exception;
using foundation::log::category_results;

// Writes "<label><value>" under `category` when someone listens for it.
template <class... Parts>
void record(unsigned category, const Parts&... parts)
{
    auto& log = detail::logger();
    if (!log.enabled(category))
        return;
    std::string text;
    ((text += parts), ...);
    log.write(category, text);
}

std::string number(std::streamoff value)
{
    return std::to_string(value);
}

[[noreturn]] void closedDevice(const char* which)
{
    boost::throw_exception(std::logic_error(std::string("Cannot operate on a closed ") + which + "."));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// IODevice

IODevice::IODevice(File file) : m_file(std::move(file))
{
    foundation::log::trace_scope scope(detail::logger(), __PRETTY_FUNCTION__);
    m_device = std::make_shared<provider::ByteStreamDevice>(detail::StreamAccess::openReadOnly(m_file));
}

IODevice::IODevice(File file, provider::ByteStreamOpenOptions options) : m_file(std::move(file))
{
    foundation::log::trace_scope scope(detail::logger(), __PRETTY_FUNCTION__);
    m_device = std::make_shared<provider::ByteStreamDevice>(detail::StreamAccess::open(m_file, options));
}

IODevice::IODevice(const IODevice&) = default;
IODevice::IODevice(IODevice&&) noexcept = default;
IODevice& IODevice::operator=(const IODevice&) = default;
IODevice& IODevice::operator=(IODevice&&) noexcept = default;
IODevice::~IODevice() = default;

std::streamsize IODevice::read(char* const s, const std::streamsize n) const
{
    foundation::log::trace_scope scope(detail::logger(), __PRETTY_FUNCTION__);
    record(category_arguments, " n=", number(n));
    if (!m_device)
        closedDevice("IODevice");
    const std::streamsize got = detail::translated([&] { return m_device->read(s, n); });
    record(category_results, "Bytes read: ", number(got));
    return got;
}

std::streamsize IODevice::write(const char* const s, const std::streamsize n) const
{
    foundation::log::trace_scope scope(detail::logger(), __PRETTY_FUNCTION__);
    record(category_arguments, " n=", number(n));
    if (!m_device)
        closedDevice("IODevice");
    const std::streamsize put = detail::translated([&] { return m_device->write(s, n); });
    record(category_results, "Bytes written: ", number(put));
    return put;
}

std::streampos IODevice::seek(const std::streamoff off, const std::ios_base::seekdir way) const
{
    foundation::log::trace_scope scope(detail::logger(), __PRETTY_FUNCTION__);
    record(category_arguments, " off=", number(off), " way=", std::to_string(static_cast<int>(way)));
    if (!m_device)
        closedDevice("IODevice");
    const std::streampos position = detail::translated([&] { return m_device->seek(off, way); });
    record(category_results, "Seeked: ", number(position));
    return position;
}

std::streampos IODevice::tell() const
{
    foundation::log::trace_scope scope(detail::logger(), __PRETTY_FUNCTION__);
    const std::streampos position = seek(0, std::ios_base::cur);
    record(category_results, "Told: ", number(position));
    return position;
}

void IODevice::close()
{
    foundation::log::trace_scope scope(detail::logger(), __PRETTY_FUNCTION__);
    if (!m_device)
        closedDevice("IODevice");
    detail::translated([&] { m_device->close(); });
    m_device.reset();
}

bool IODevice::is_open() const noexcept
{
    foundation::log::trace_scope scope(detail::logger(), __PRETTY_FUNCTION__);
    return m_device != nullptr;
}

// ---------------------------------------------------------------------------------------------
// BufferedIODevice

namespace {

// I/O exceptions pass; anything else becomes `Replacement` with ErrorCode::IOError, and the
// replaced exception is reported in the trace.
template <class Replacement, class Call>
decltype(auto) asIOException(Call&& call)
{
    try {
        return call();
    } catch (const IOException&) {
        throw;
    } catch (...) {
        record(category_exception, "Exception caught: ", foundation::log::current_exception_chain_as_string());
        boost::throw_exception(Replacement(ErrorCode::IOError));
    }
}

} // namespace

BufferedIODevice::BufferedIODevice(File file) : BufferedIODevice(IODevice(std::move(file))) {}

BufferedIODevice::BufferedIODevice(File file, provider::ByteStreamOpenOptions options)
    : BufferedIODevice(IODevice(std::move(file), options))
{
}

BufferedIODevice::BufferedIODevice(IODevice device)
    : boost::iostreams::stream_buffer<IODevice>(device, static_cast<int>(bufferSize))
{
}

BufferedIODevice::~BufferedIODevice() = default;

std::streamsize BufferedIODevice::read(char* s, std::streamsize n) const
{
    auto& self = const_cast<BufferedIODevice&>(*this);
    const std::streamsize got = asIOException<IOReadException>([&] { return self.sgetn(s, n); });
    return got == 0 && n > 0 ? -1 : got;
}

std::streamsize BufferedIODevice::write(const char* s, std::streamsize n) const
{
    auto& self = const_cast<BufferedIODevice&>(*this);
    return asIOException<IOWriteException>([&] { return self.sputn(s, n); });
}

std::streampos BufferedIODevice::seek(std::streamoff off, std::ios_base::seekdir way) const
{
    auto& self = const_cast<BufferedIODevice&>(*this);
    const std::streampos position = asIOException<IOSeekException>(
        [&] { return self.pubseekoff(off, way, std::ios_base::in | std::ios_base::out); });
    // The buffer reports a failure it caught itself as position -1.
    if (position == std::streampos(-1))
        boost::throw_exception(IOSeekException(ErrorCode::IOError));
    return position;
}

std::streampos BufferedIODevice::tell() const
{
    return seek(0, std::ios_base::cur);
}

// The Boost buffer's own sync swallows the device's exception; writing the pending output here
// first lets a failure keep its code (NoSpaceLeft, ReadOnlyProvider, ...).
void BufferedIODevice::writeOut()
{
    if (pptr() == nullptr || pptr() == pbase() || !boost::iostreams::stream_buffer<IODevice>::is_open())
        return;
    (**this).write(pbase(), pptr() - pbase());
    setp(pbase(), epptr());
}

void BufferedIODevice::flush()
{
    asIOException<IOWriteException>([&] { writeOut(); });
    if (asIOException<IOWriteException>([&] { return pubsync(); }) != 0)
        boost::throw_exception(IOWriteException(ErrorCode::IOError));
}

void BufferedIODevice::close()
{
    asIOException<IOCloseException>([&] {
        writeOut();
        boost::iostreams::stream_buffer<IODevice>::close();
    });
    m_closed = true;
}

bool BufferedIODevice::is_open() const
{
    return !m_closed;
}

// ---------------------------------------------------------------------------------------------
// TransactionalIODevice

TransactionalIODevice::TransactionalIODevice(File file, provider::ByteStreamAccess access)
    : m_device(std::make_unique<provider::TransactionalStreamDevice>(detail::StreamAccess::openTransactionalStream(
          file, provider::ByteStreamOpenOptions{access, provider::ByteStreamCreation::CreateIfMissing, 0, 1})))
{
}

TransactionalIODevice::TransactionalIODevice(TransactionalIODevice&&) noexcept = default;
TransactionalIODevice& TransactionalIODevice::operator=(TransactionalIODevice&&) noexcept = default;
TransactionalIODevice::~TransactionalIODevice() = default;

std::streamsize TransactionalIODevice::read(char* s, std::streamsize n) const
{
    if (!m_device)
        closedDevice("TransactionalIODevice");
    return detail::translated([&] { return m_device->read(s, n); });
}

std::streamsize TransactionalIODevice::write(const char* s, std::streamsize n) const
{
    if (!m_device)
        closedDevice("TransactionalIODevice");
    return detail::translated([&] { return m_device->write(s, n); });
}

std::streampos TransactionalIODevice::seek(std::streamoff off, std::ios_base::seekdir way) const
{
    if (!m_device)
        closedDevice("TransactionalIODevice");
    return detail::translated([&] { return m_device->seek(off, way); });
}

std::streampos TransactionalIODevice::tell() const
{
    return seek(0, std::ios_base::cur);
}

void TransactionalIODevice::close(provider::StreamClosePolicy policy)
{
    if (!m_device)
        closedDevice("TransactionalIODevice");
    detail::translated([&] { m_device->close(policy); });
    m_device.reset();
}

bool TransactionalIODevice::is_open() const noexcept
{
    return m_device != nullptr;
}

std::string readAll(const File& file)
{
    IODevice device(file);
    std::string content;
    constexpr std::size_t chunk = BufferedIODevice::bufferSize;
    for (;;) {
        const std::size_t had = content.size();
        content.resize(had + chunk);
        const std::streamsize got = device.read(content.data() + had, static_cast<std::streamsize>(chunk));
        content.resize(had + static_cast<std::size_t>(got > 0 ? got : 0));
        if (got <= 0)
            break;
    }
    device.close();
    return content;
}

void writeAll(const File& file, std::string_view bytes)
{
    TransactionalIODevice device(file, provider::ByteStreamAccess::Write);
    for (std::size_t done = 0; done < bytes.size();) {
        const std::streamsize put =
            device.write(bytes.data() + done, static_cast<std::streamsize>(bytes.size() - done));
        if (put <= 0)
            boost::throw_exception(IOWriteException(ErrorCode::IOError));
        done += static_cast<std::size_t>(put);
    }
    device.close(provider::StreamClosePolicy::Commit);
}

} // namespace foundation::storage::vfs
