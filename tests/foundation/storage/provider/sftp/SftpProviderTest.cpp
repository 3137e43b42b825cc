// What is specific to the sftp provider; its behaviour as a provider is the conformance suites'.

#include "ProviderHarness.hpp"

namespace vfs_test {
namespace {

TEST(SftpServer, TheFixtureIsRunning)
{
    ASSERT_TRUE(sftpServer().has_value()) << "server fixture not running (tests/servers/sshd-fixture.sh)";
}

} // namespace
} // namespace vfs_test
