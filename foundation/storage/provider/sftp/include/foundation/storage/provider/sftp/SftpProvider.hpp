#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <fl/chrono/duration.hpp>
#include <cstdint>
#include <memory>
#include <string>

namespace foundation::storage::provider::sftp {

// The starting settings; configure() changes them later with the keys of the same names
// ("sessionsPerHost", "connectTimeoutMs", "ioTimeoutMs" as decimal numbers; "identityFile",
// "knownHostsFile" as paths; "useAgent", "acceptNewHostKeys" as "true" or "false").
struct SftpProviderOptions {
    // SSH sessions kept open per user@host:port; at most this many calls run at once on one host
    // (open streams hold a session of their own on top).
    std::uint32_t sessionsPerHost = 4;
    // Reaching the host, the key exchange and the authentication together; an unreachable host
    // fails within it.
    std::chrono::milliseconds connectTimeout{10000};
    // One request's answer; a server that stops answering fails the call after it.
    std::chrono::milliseconds ioTimeout{60000};
    // A private key file tried before the default ones (~/.ssh/id_ed25519, id_ecdsa, id_rsa);
    // empty: the default ones only.
    std::string identityFile;
    // The known hosts file host keys are checked against; empty: ~/.ssh/known_hosts.
    std::string knownHostsFile;
    // Whether the SSH agent (SSH_AUTH_SOCK) is asked first.
    bool useAgent = true;
    // A host not in the known hosts file is accepted and appended to it (as OpenSSH's
    // StrictHostKeyChecking=accept-new); a changed key is refused all the same.
    bool acceptNewHostKeys = false;
};

// Serves sftp://[user@]host[:port]/path over SSH (SFTP version 3) through libssh2. The user
// defaults to the local user, the port to 22. Host keys are always checked: an unknown host or a
// changed key is refused with PermissionDenied (context "known_hosts"). Authentication tries the
// SSH agent, then the configured key file, then the default keys; credentials never appear in
// failures or logs.
//
// Thread-safe: calls share a pool of sessions per host, each used by one thread at a time. A
// connection that drops fails the call in progress (IOError, context "connection") and the next
// call connects again. Times are whole seconds; nothing is watched natively (polling works);
// a replacing rename is not atomic (the target is set aside first), but transactional streams
// write a temporary beside the target, flush it to disk and rename it, so the target appears
// whole or not at all.
VFS_EXPORT std::shared_ptr<IProvider> makeSftpProvider(SftpProviderOptions options = {});

} // namespace foundation::storage::provider::sftp
