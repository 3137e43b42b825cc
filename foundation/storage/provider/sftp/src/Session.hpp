#pragma once

// SSH sessions of the sftp provider: one Connection is a socket, an SSH session and its SFTP
// channel; a Pool keeps the connections to one user@host:port. Internal.

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/sftp/SftpProvider.hpp>

#include <libssh2.h>
#include <libssh2_sftp.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::storage::provider::sftp::detail {

// Who and where, from a location's authority "[user@]host[:port]".
struct Endpoint {
    std::string user;
    std::string host;
    int port = 22;
    std::string key() const { return user + '@' + host + ':' + std::to_string(port); }
};

// Refuses a malformed authority with InvalidLocation naming `location`.
Endpoint endpointOf(const StorageIRI& location);

// The path of a location as the server takes it (bytes).
std::string remotePath(const StorageIRI& location);

// One SSH connection with its SFTP channel. Used by one thread at a time.
class Connection {
public:
    Connection(const Endpoint& endpoint, const SftpProviderOptions& options, const StorageIRI& location);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    LIBSSH2_SFTP* sftp() const noexcept { return m_sftp; }
    LIBSSH2_SESSION* session() const noexcept { return m_session; }
    bool broken() const noexcept { return m_broken; }

    // The SFTP status of the last failed request; 0 when the failure was not the server's answer
    // (the connection failed: it is then marked broken).
    unsigned long lastStatus();
    // The provider failure for the last failed request of `call`: the server's status translated
    // as the matching errno would be, or IOError (context "connection") for a lost connection.
    Exception failure(const char* call, const StorageIRI& location);
    [[noreturn]] void fail(const char* call, const StorageIRI& location) { throw failure(call, location); }
    [[noreturn]] void failStream(StreamOperation operation, const char* call, const StorageIRI& location);

private:
    void close() noexcept;
    void handshake(const Endpoint& endpoint, const SftpProviderOptions& options, const StorageIRI& location);
    void checkHostKey(const Endpoint& endpoint, const SftpProviderOptions& options, const StorageIRI& location);
    void authenticate(const Endpoint& endpoint, const SftpProviderOptions& options, const StorageIRI& location);

    int m_socket = -1;
    LIBSSH2_SESSION* m_session = nullptr;
    LIBSSH2_SFTP* m_sftp = nullptr;
    bool m_broken = false;
};

// The connections to one endpoint. At most `sessionsPerHost` calls hold one at a time (the others
// wait); streams take one beside them and never wait, so a thread holding streams cannot block
// itself. Idle connections (up to twice `sessionsPerHost`) are kept for the next call or stream; a
// broken one is dropped with every idle one.
class Pool : public std::enable_shared_from_this<Pool> {
public:
    Pool(Endpoint endpoint, SftpProviderOptions options) : m_endpoint(std::move(endpoint)), m_options(std::move(options)) {}

    // A connection lent to the holder, given back when it goes.
    class Lease {
    public:
        Lease() = default;
        Lease(std::shared_ptr<Pool> pool, std::unique_ptr<Connection> connection, bool counted)
            : m_pool(std::move(pool)), m_connection(std::move(connection)), m_counted(counted)
        {
        }
        Lease(Lease&&) noexcept = default;
        Lease& operator=(Lease&& other) noexcept
        {
            release();
            m_pool = std::move(other.m_pool);
            m_connection = std::move(other.m_connection);
            m_counted = other.m_counted;
            return *this;
        }
        ~Lease() { release(); }
        Connection* operator->() const noexcept { return m_connection.get(); }
        Connection& operator*() const noexcept { return *m_connection; }
        void release() noexcept;

    private:
        std::shared_ptr<Pool> m_pool;
        std::unique_ptr<Connection> m_connection;
        bool m_counted = false;
    };

    // For one call (waits while the calls in progress use every session).
    Lease forCall(const StorageIRI& location);
    // For a stream, held for the stream's life.
    Lease forStream(const StorageIRI& location);

private:
    std::unique_ptr<Connection> take(const StorageIRI& location);
    void giveBack(std::unique_ptr<Connection> connection, bool counted) noexcept;

    const Endpoint m_endpoint;
    const SftpProviderOptions m_options;
    std::mutex m_mutex;
    std::condition_variable m_freed;
    std::vector<std::unique_ptr<Connection>> m_idle;
    std::uint32_t m_calls = 0;
};

// Attributes as the library reports them, from the server's; `name` decides hidden (a dot first).
// The server's times are whole seconds.
boost::posix_time::ptime timeOf(unsigned long seconds);
FileAttributes fileAttributes(const LIBSSH2_SFTP_ATTRIBUTES& a, const ustring& name, bool link);
FolderAttributes folderAttributes(const LIBSSH2_SFTP_ATTRIBUTES& a, const ustring& name, bool link);

// Kinds of what the server reports (from the permission bits of its attributes).
inline bool isFolder(const LIBSSH2_SFTP_ATTRIBUTES& a) { return LIBSSH2_SFTP_S_ISDIR(a.permissions); }
inline bool isFile(const LIBSSH2_SFTP_ATTRIBUTES& a) { return LIBSSH2_SFTP_S_ISREG(a.permissions); }
inline bool isLink(const LIBSSH2_SFTP_ATTRIBUTES& a) { return LIBSSH2_SFTP_S_ISLNK(a.permissions); }

} // namespace foundation::storage::provider::sftp::detail
