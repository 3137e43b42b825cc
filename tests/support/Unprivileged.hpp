#pragma once

// Running a piece of a test where file permissions apply. Root passes every permission check, and CI
// runs as root; there the piece runs in a forked child that has become "nobody" (uid and gid 65534).
// Whatever the child must reach has to be reachable for nobody: a folder under /tmp that others may
// search (mode 0711) will do.

#include <sys/types.h>
#include <sys/wait.h>

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

namespace vfs_test {

inline constexpr uid_t nobody = 65534;

namespace detail {

inline void writeAll(int fd, const std::string& text) noexcept
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        done += static_cast<std::size_t>(written);
    }
}

inline std::string readAll(int fd)
{
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return text;
        text.append(buffer, static_cast<std::size_t>(got));
    }
}

// The child's side: drop privileges, run, report, and leave through _exit so that nothing of the
// parent's (static destructors, temporary folders owned by the test) is torn down twice.
[[noreturn]] inline void runAsNobody(int out, const std::function<std::string()>& body) noexcept
{
    if (::setgroups(0, nullptr) != 0 || ::setresgid(nobody, nobody, nobody) != 0 ||
        ::setresuid(nobody, nobody, nobody) != 0 || ::geteuid() != nobody) {
        writeAll(out, std::string("cannot become nobody: ") + std::strerror(errno));
        ::_exit(2);
    }
    try {
        writeAll(out, body());
    } catch (const std::exception& error) {
        writeAll(out, std::string("exception: ") + error.what());
        ::_exit(3);
    } catch (...) {
        writeAll(out, "exception of unknown type");
        ::_exit(3);
    }
    ::_exit(0);
}

} // namespace detail

// Runs `body` where permissions are checked and returns the text it produced: in place for an
// unprivileged process, in a child running as nobody for root. `body` must report through its
// text, not through gtest assertions (a child's are lost). Failing to fork, to drop privileges, or
// an exception in the child's `body` throws std::runtime_error here.
inline std::string runWithPermissionsEnforced(const std::function<std::string()>& body)
{
    if (::geteuid() != 0)
        return body();

    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    const pid_t child = ::fork();
    if (child < 0) {
        const int error = errno;
        ::close(pipeEnds[0]);
        ::close(pipeEnds[1]);
        throw std::runtime_error(std::string("fork: ") + std::strerror(error));
    }
    if (child == 0) {
        ::close(pipeEnds[0]);
        detail::runAsNobody(pipeEnds[1], body);
    }
    ::close(pipeEnds[1]);
    const std::string text = detail::readAll(pipeEnds[0]);
    ::close(pipeEnds[0]);

    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("the child running as nobody failed (wait status " + std::to_string(status) +
                                 "): " + text);
    return text;
}

} // namespace vfs_test
