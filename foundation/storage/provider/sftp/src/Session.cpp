// Connecting, checking the host key, authenticating, and the pool of connections per endpoint.

#include "Session.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <boost/date_time/posix_time/conversion.hpp>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace foundation::storage::provider::sftp::detail {

namespace {

ustring utf16(const std::string& text) { return fl::i18n::utf8_to_ustring_lossy(text); }

[[noreturn]] void refuse(ErrorCode code, const StorageIRI& location, const char16_t* call, const char16_t* why,
                         const std::string& message)
{
    throwProviderError(code, location, {ExceptionContext(call), ExceptionContext(why)}, utf16(message));
}

std::string homeFolder()
{
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    if (const passwd* entry = ::getpwuid(::geteuid()))
        return entry->pw_dir;
    return {};
}

bool isRegularFile(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The errno a POSIX server would have met for an SFTP status, so that the one translation of
// system errors into provider errors serves both.
int errnoOfStatus(unsigned long status)
{
    switch (status) {
    case LIBSSH2_FX_NO_SUCH_FILE:
    case LIBSSH2_FX_NO_SUCH_PATH: return ENOENT;
    case LIBSSH2_FX_PERMISSION_DENIED: return EACCES;
    case LIBSSH2_FX_BAD_MESSAGE: return EBADMSG;
    case LIBSSH2_FX_NO_CONNECTION: return ENOTCONN;
    case LIBSSH2_FX_CONNECTION_LOST: return ECONNRESET;
    case LIBSSH2_FX_OP_UNSUPPORTED: return EOPNOTSUPP;
    case LIBSSH2_FX_INVALID_HANDLE: return EBADF;
    case LIBSSH2_FX_FILE_ALREADY_EXISTS: return EEXIST;
    case LIBSSH2_FX_WRITE_PROTECT: return EROFS;
    case LIBSSH2_FX_NO_MEDIA: return ENODEV;
    case LIBSSH2_FX_NO_SPACE_ON_FILESYSTEM: return ENOSPC;
    case LIBSSH2_FX_QUOTA_EXCEEDED: return EDQUOT;
    case LIBSSH2_FX_LOCK_CONFLICT: return EBUSY;
    case LIBSSH2_FX_DIR_NOT_EMPTY: return ENOTEMPTY;
    case LIBSSH2_FX_NOT_A_DIRECTORY: return ENOTDIR;
    case LIBSSH2_FX_INVALID_FILENAME: return EINVAL;
    case LIBSSH2_FX_LINK_LOOP: return ELOOP;
    default: return EIO; // SSH_FX_FAILURE: the server says no more
    }
}

int knownHostKeyType(int hostKeyType)
{
    switch (hostKeyType) {
    case LIBSSH2_HOSTKEY_TYPE_RSA: return LIBSSH2_KNOWNHOST_KEY_SSHRSA;
    case LIBSSH2_HOSTKEY_TYPE_DSS: return LIBSSH2_KNOWNHOST_KEY_SSHDSS;
    case LIBSSH2_HOSTKEY_TYPE_ECDSA_256: return LIBSSH2_KNOWNHOST_KEY_ECDSA_256;
    case LIBSSH2_HOSTKEY_TYPE_ECDSA_384: return LIBSSH2_KNOWNHOST_KEY_ECDSA_384;
    case LIBSSH2_HOSTKEY_TYPE_ECDSA_521: return LIBSSH2_KNOWNHOST_KEY_ECDSA_521;
    case LIBSSH2_HOSTKEY_TYPE_ED25519: return LIBSSH2_KNOWNHOST_KEY_ED25519;
    default: return LIBSSH2_KNOWNHOST_KEY_UNKNOWN;
    }
}

std::once_flag g_libraryStarted;

} // namespace

Endpoint endpointOf(const StorageIRI& location)
{
    std::string authority = fl::i18n::ustring_to_utf8_lossy(location.getAuthority());
    Endpoint endpoint;
    if (const auto at = authority.rfind('@'); at != std::string::npos) {
        endpoint.user = authority.substr(0, at);
        authority.erase(0, at + 1);
        if (endpoint.user.find(':') != std::string::npos)
            refuse(ErrorCode::InvalidLocation, location, u"authority", u"password-in-iri",
                   "an sftp location takes no password; use a key or the SSH agent");
    } else if (const passwd* entry = ::getpwuid(::geteuid())) {
        endpoint.user = entry->pw_name;
    }
    std::string port;
    if (!authority.empty() && authority.front() == '[') { // an IPv6 literal
        const auto close = authority.find(']');
        if (close == std::string::npos)
            refuse(ErrorCode::InvalidLocation, location, u"authority", u"bad-host", "unterminated IPv6 literal");
        endpoint.host = authority.substr(1, close - 1);
        if (close + 1 < authority.size()) {
            if (authority[close + 1] != ':')
                refuse(ErrorCode::InvalidLocation, location, u"authority", u"bad-host", "junk after the IPv6 literal");
            port = authority.substr(close + 2);
        }
    } else if (const auto colon = authority.rfind(':'); colon != std::string::npos) {
        endpoint.host = authority.substr(0, colon);
        port = authority.substr(colon + 1);
    } else {
        endpoint.host = authority;
    }
    if (!port.empty()) {
        const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), endpoint.port);
        if (error != std::errc() || end != port.data() + port.size() || endpoint.port < 1 || endpoint.port > 65535)
            refuse(ErrorCode::InvalidLocation, location, u"authority", u"bad-port", "the port is not a number from 1 to 65535");
    }
    if (endpoint.host.empty() || endpoint.user.empty())
        refuse(ErrorCode::InvalidLocation, location, u"authority", u"bad-host", "an sftp location names a host");
    return endpoint;
}

std::string remotePath(const StorageIRI& location) { return fl::i18n::ustring_to_native(location.getPath()); }

Connection::Connection(const Endpoint& endpoint, const SftpProviderOptions& options, const StorageIRI& location)
{
    std::call_once(g_libraryStarted, [] { ::libssh2_init(0); });
    try {
        handshake(endpoint, options, location);
        checkHostKey(endpoint, options, location);
        authenticate(endpoint, options, location);
        m_sftp = ::libssh2_sftp_init(m_session);
        if (!m_sftp)
            refuse(ErrorCode::IOError, location, u"sftp_init", u"connection",
                   "the server at " + endpoint.host + " offers no SFTP subsystem");
        ::libssh2_session_set_timeout(m_session, static_cast<long>(options.ioTimeout.count()));
    } catch (...) {
        m_broken = true;
        close();
        throw;
    }
}

Connection::~Connection() { close(); }

void Connection::close() noexcept
{
    // Also on a broken connection: it frees the channel's memory, and a dead socket fails fast.
    if (m_sftp)
        ::libssh2_sftp_shutdown(m_sftp);
    m_sftp = nullptr;
    if (m_session) {
        if (!m_broken)
            ::libssh2_session_disconnect(m_session, "closed");
        ::libssh2_session_free(m_session);
        m_session = nullptr;
    }
    if (m_socket >= 0)
        ::close(m_socket);
    m_socket = -1;
}

void Connection::handshake(const Endpoint& endpoint, const SftpProviderOptions& options, const StorageIRI& location)
{
    const std::string where = endpoint.host + ":" + std::to_string(endpoint.port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = ::getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found))
        refuse(ErrorCode::IOError, location, u"getaddrinfo", u"unknown-host",
               "cannot resolve " + endpoint.host + ": " + ::gai_strerror(error));
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, &::freeaddrinfo);
    int error = ETIMEDOUT;
    for (const addrinfo* a = found; a && m_socket < 0; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            error = errno;
            continue;
        }
        if (::connect(fd, a->ai_addr, a->ai_addrlen) != 0 && errno != EINPROGRESS) {
            error = errno;
            ::close(fd);
            continue;
        }
        pollfd waiting{fd, POLLOUT, 0};
        int ready = 0;
        do
            ready = ::poll(&waiting, 1, static_cast<int>(options.connectTimeout.count()));
        while (ready < 0 && errno == EINTR);
        socklen_t size = sizeof error;
        if (ready <= 0)
            error = ETIMEDOUT;
        else if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
            error = errno;
        if (ready <= 0 || error != 0) {
            ::close(fd);
            continue;
        }
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        // SFTP is request and answer: without this, a small request that follows another waits
        // for the peer's delayed acknowledgement (tens of milliseconds) before it leaves.
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        m_socket = fd;
    }
    if (m_socket < 0)
        throwProviderError(ErrorCode::IOError, location, {ExceptionContext(u"connect"), ExceptionContext(utf16(errnoName(error)))},
                           utf16("cannot reach " + where + ": " + std::strerror(error)));
    m_session = ::libssh2_session_init();
    if (!m_session)
        refuse(ErrorCode::InternalError, location, u"session_init", u"ENOMEM", "libssh2 could not make a session");
    ::libssh2_session_set_blocking(m_session, 1);
    ::libssh2_session_set_timeout(m_session, static_cast<long>(options.connectTimeout.count()));
    if (const int rc = ::libssh2_session_handshake(m_session, m_socket)) {
        char* message = nullptr;
        ::libssh2_session_last_error(m_session, &message, nullptr, 0);
        refuse(ErrorCode::IOError, location, u"handshake", rc == LIBSSH2_ERROR_TIMEOUT ? u"timeout" : u"connection",
               "no SSH handshake with " + where + ": " + (message ? message : "failed"));
    }
}

void Connection::checkHostKey(const Endpoint& endpoint, const SftpProviderOptions& options, const StorageIRI& location)
{
    const std::string file = options.knownHostsFile.empty() ? homeFolder() + "/.ssh/known_hosts" : options.knownHostsFile;
    std::size_t keySize = 0;
    int keyType = 0;
    const char* key = ::libssh2_session_hostkey(m_session, &keySize, &keyType);
    std::unique_ptr<LIBSSH2_KNOWNHOSTS, decltype(&::libssh2_knownhost_free)> hosts(::libssh2_knownhost_init(m_session),
                                                                                   &::libssh2_knownhost_free);
    if (!key || !hosts)
        refuse(ErrorCode::PermissionDenied, location, u"known_hosts", u"no-host-key", "the server showed no host key");
    if (isRegularFile(file))
        ::libssh2_knownhost_readfile(hosts.get(), file.c_str(), LIBSSH2_KNOWNHOST_FILE_OPENSSH);
    const int type = LIBSSH2_KNOWNHOST_TYPE_PLAIN | LIBSSH2_KNOWNHOST_KEYENC_RAW | knownHostKeyType(keyType);
    libssh2_knownhost* entry = nullptr;
    const int check = ::libssh2_knownhost_checkp(hosts.get(), endpoint.host.c_str(), endpoint.port, key, keySize, type, &entry);
    const std::string where = endpoint.port == 22 ? endpoint.host : "[" + endpoint.host + "]:" + std::to_string(endpoint.port);
    if (check == LIBSSH2_KNOWNHOST_CHECK_MATCH)
        return;
    if (check == LIBSSH2_KNOWNHOST_CHECK_MISMATCH)
        refuse(ErrorCode::PermissionDenied, location, u"known_hosts", u"host-key-changed",
               "the host key of " + where + " differs from the one in " + file + "; refused");
    if (check != LIBSSH2_KNOWNHOST_CHECK_NOTFOUND || !options.acceptNewHostKeys)
        refuse(ErrorCode::PermissionDenied, location, u"known_hosts", u"unknown-host",
               where + " is not in " + file + "; refused (accept it with the setting acceptNewHostKeys)");
    libssh2_knownhost* added = nullptr;
    char line[8192];
    std::size_t length = 0;
    if (::libssh2_knownhost_addc(hosts.get(), where.c_str(), nullptr, key, keySize, nullptr, 0, type, &added) != 0 ||
        ::libssh2_knownhost_writeline(hosts.get(), added, line, sizeof line, &length, LIBSSH2_KNOWNHOST_FILE_OPENSSH) != 0)
        refuse(ErrorCode::PermissionDenied, location, u"known_hosts", u"unknown-host", "cannot record the host key of " + where);
    std::ofstream out(file, std::ios::app | std::ios::binary);
    out.write(line, static_cast<std::streamsize>(length));
    if (!out.flush())
        refuse(ErrorCode::PermissionDenied, location, u"known_hosts", u"not-recorded", "cannot append the host key to " + file);
}

void Connection::authenticate(const Endpoint& endpoint, const SftpProviderOptions& options, const StorageIRI& location)
{
    const char* user = endpoint.user.c_str();
    const auto userLength = static_cast<unsigned>(endpoint.user.size());
    // Asking for the methods may already log in (a server that takes "none").
    ::libssh2_userauth_list(m_session, user, userLength);
    if (::libssh2_userauth_authenticated(m_session))
        return;
    if (options.useAgent && std::getenv("SSH_AUTH_SOCK")) {
        std::unique_ptr<LIBSSH2_AGENT, decltype(&::libssh2_agent_free)> agent(::libssh2_agent_init(m_session), &::libssh2_agent_free);
        if (agent && ::libssh2_agent_connect(agent.get()) == 0) {
            libssh2_agent_publickey* identity = nullptr;
            bool accepted = false;
            if (::libssh2_agent_list_identities(agent.get()) == 0)
                while (!accepted && ::libssh2_agent_get_identity(agent.get(), &identity, identity) == 0)
                    accepted = ::libssh2_agent_userauth(agent.get(), user, identity) == 0;
            ::libssh2_agent_disconnect(agent.get());
            if (accepted)
                return;
        }
    }
    std::vector<std::string> keys;
    if (!options.identityFile.empty()) {
        if (!isRegularFile(options.identityFile))
            refuse(ErrorCode::PermissionDenied, location, u"authentication", u"no-key-file",
                   "the configured identity file " + options.identityFile + " cannot be read");
        keys.push_back(options.identityFile);
    }
    for (const char* name : {"id_ed25519", "id_ecdsa", "id_rsa"})
        if (const std::string path = homeFolder() + "/.ssh/" + name; isRegularFile(path))
            keys.push_back(path);
    for (const auto& key : keys) {
        const std::string publicKey = key + ".pub";
        if (::libssh2_userauth_publickey_fromfile_ex(m_session, user, userLength,
                                                     isRegularFile(publicKey) ? publicKey.c_str() : nullptr, key.c_str(),
                                                     nullptr) == 0)
            return;
        const int rc = ::libssh2_session_last_errno(m_session);
        if (rc == LIBSSH2_ERROR_SOCKET_RECV || rc == LIBSSH2_ERROR_SOCKET_SEND || rc == LIBSSH2_ERROR_TIMEOUT)
            refuse(ErrorCode::IOError, location, u"authentication", u"connection", "the connection to " + endpoint.host + " dropped");
    }
    refuse(ErrorCode::PermissionDenied, location, u"authentication", u"no-key-accepted",
           "the server " + endpoint.host + " accepted none of the keys offered (agent, configured, default)");
}

unsigned long Connection::lastStatus()
{
    if (::libssh2_session_last_errno(m_session) == LIBSSH2_ERROR_SFTP_PROTOCOL)
        return ::libssh2_sftp_last_error(m_sftp);
    m_broken = true;
    return 0;
}

Exception Connection::failure(const char* call, const StorageIRI& location)
{
    const int sessionError = ::libssh2_session_last_errno(m_session);
    if (const unsigned long status = lastStatus())
        return posixError(errnoOfStatus(status), call, location);
    char* message = nullptr;
    ::libssh2_session_last_error(m_session, &message, nullptr, 0);
    Exception error(ErrorCode::IOError, location, utf16(std::string("the SSH connection failed: ") + (message ? message : "")));
    error.withContext(utf16(call)).withContext(sessionError == LIBSSH2_ERROR_TIMEOUT ? u"timeout" : u"connection");
    return error;
}

void Connection::failStream(StreamOperation operation, const char* call, const StorageIRI& location)
{
    Exception error = failure(call, location);
    ErrorCode code = error.getErrorCode();
    // OpenSSH answers a full disk with the generic failure: ask the file system.
    LIBSSH2_SFTP_STATVFS space{};
    if (code == ErrorCode::IOError && !m_broken && operation != StreamOperation::Read) {
        const std::string folder = remotePath(location.getParent());
        if (::libssh2_sftp_statvfs(m_sftp, folder.data(), folder.size(), &space) == 0 && space.f_bavail == 0)
            code = ErrorCode::NoSpaceLeft;
    }
    throwByteStreamFailure(operation, fl::i18n::ustring_to_utf8_lossy(location.toString()) + ": " + error.what(), code,
                           error.getAllExceptionContexts());
}

boost::posix_time::ptime timeOf(unsigned long seconds) { return boost::posix_time::from_time_t(static_cast<std::time_t>(seconds)); }

namespace {
bool hiddenName(const ustring& name) { return !name.empty() && name.front() == u'.'; }
} // namespace

FileAttributes fileAttributes(const LIBSSH2_SFTP_ATTRIBUTES& a, const ustring& name, bool link)
{
    return FileAttributes(a.filesize, timeOf(a.mtime), (a.permissions & 0200) != 0, link, hiddenName(name));
}

FolderAttributes folderAttributes(const LIBSSH2_SFTP_ATTRIBUTES& a, const ustring& name, bool link)
{
    return FolderAttributes(timeOf(a.mtime), (a.permissions & 0200) != 0, link, hiddenName(name));
}

void Pool::Lease::release() noexcept
{
    if (m_pool && m_connection)
        m_pool->giveBack(std::move(m_connection), m_counted);
    m_pool.reset();
}

Pool::Lease Pool::forCall(const StorageIRI& location)
{
    std::unique_lock lock(m_mutex);
    m_freed.wait(lock, [&] { return m_calls < std::max<std::uint32_t>(m_options.sessionsPerHost, 1); });
    ++m_calls;
    lock.unlock();
    try {
        return Lease(shared_from_this(), take(location), true);
    } catch (...) {
        lock.lock();
        --m_calls;
        m_freed.notify_one();
        throw;
    }
}

Pool::Lease Pool::forStream(const StorageIRI& location) { return Lease(shared_from_this(), take(location), false); }

std::unique_ptr<Connection> Pool::take(const StorageIRI& location)
{
    {
        std::lock_guard lock(m_mutex);
        if (!m_idle.empty()) {
            auto connection = std::move(m_idle.back());
            m_idle.pop_back();
            return connection;
        }
    }
    return std::make_unique<Connection>(m_endpoint, m_options, location);
}

void Pool::giveBack(std::unique_ptr<Connection> connection, bool counted) noexcept
{
    std::vector<std::unique_ptr<Connection>> dropped;
    {
        std::lock_guard lock(m_mutex);
        if (counted)
            --m_calls;
        if (connection->broken())
            dropped.swap(m_idle); // they are likely gone as well
        else if (m_idle.size() < 2 * std::max<std::uint32_t>(m_options.sessionsPerHost, 1))
            // Room for what a tree copy holds at once: a call and a stream per transfer. Fewer
            // would close connections that the next file opens again, a handshake each.
            m_idle.push_back(std::move(connection));
        m_freed.notify_one();
    }
    // Closed outside the lock: a goodbye may take a round trip.
}

} // namespace foundation::storage::provider::sftp::detail
