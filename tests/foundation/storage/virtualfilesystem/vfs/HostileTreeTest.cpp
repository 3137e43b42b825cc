// Locations and loads built to make the library misbehave: encoded dot segments, and many writers
// racing against a memory volume's quota.

#include <foundation/storage/vfs.hpp>

#include <DecoratedStorage.hpp>
#include <StorageSystems.hpp>
#include <Threads.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>

namespace {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;
using fl::i18n::ustring;
using vfs::AbsoluteIRI;
using vfs::ErrorCode;
using vfs::File;
using vfs::Folder;

TEST(HostileTreeTest, EncodedDotSegmentsNeverClimbAboveTheRoot)
{
    struct Case {
        const char16_t* text;
        const char16_t* expected;
    };
    for (const Case& c : {Case{u"mem://v/a/%2E%2E/%2e%2E/%2E%2e/x", u"mem://v/x"}, Case{u"mem://v/a/%2E./b", u"mem://v/b"},
                          Case{u"mem://v/a/.%2E/.%2e/b/%2E/c", u"mem://v/b/c"},
                          Case{u"file:///tmp/%2E%2E/%2E%2E/%2E%2E/etc", u"file:///etc"}}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(c.text));
        const AbsoluteIRI location(c.text);
        EXPECT_EQ(location.toString(), c.expected);
    }
}

// Writers of every kind race on shared files against a small quota. Afterwards the files hold no
// more than the quota, and the space the volume counts as used is exactly what they hold.
TEST(HostileTreeTest, ConcurrentWritersNeverExceedAMemoryVolumesQuota)
{
    constexpr std::uint64_t quota = 256 * 1024;
    vfs::DefaultStorageSystemOptions options;
    options.memory.quotaBytes = quota;
    auto [system, ref] = vfs_test::makeSystem<vfs::DefaultStorageSystem>(options);
    const Folder root(AbsoluteIRI(u"mem://quota/"), ref);
    const auto used = [&] {
        const auto info = vfs::getStorageInfo(root);
        return *info.capacityBytes - *info.availableBytes;
    };

    std::atomic<int> refused{0};
    const provider::ByteStreamOpenOptions truncating{provider::ByteStreamAccess::Write,
                                                     provider::ByteStreamCreation::CreateIfMissing, 0, 1};
    const provider::ByteStreamOpenOptions appending{provider::ByteStreamAccess::Write,
                                                    provider::ByteStreamCreation::CreateIfMissing, 1, 0};
    vfs_test::runOnThreads(8, [&](int index) {
        std::mt19937 random(static_cast<unsigned>(index) + 11u);
        for (int round = 0; round < 150; ++round) {
            const File file(root, u"f" + fl::i18n::utf8_to_ustring(std::to_string(random() % 12)));
            const std::string bytes(1 + random() % 40000, static_cast<char>('a' + index));
            try {
                switch (random() % 4) {
                case 0: {
                    vfs::TransactionalIODevice device(file, provider::ByteStreamAccess::Write);
                    device.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
                    device.close(provider::StreamClosePolicy::Commit);
                    break;
                }
                case 1:
                case 2: {
                    vfs::IODevice device(file, random() % 2 ? truncating : appending);
                    for (std::size_t done = 0; done < bytes.size(); done += 4096)
                        device.write(bytes.data() + done, static_cast<std::streamsize>(std::min<std::size_t>(4096, bytes.size() - done)));
                    device.close();
                    break;
                }
                default:
                    file.truncateToSize(random() % 60000);
                }
            } catch (const vfs::IOException& error) {
                if (error.getErrorCode() != ErrorCode::NoSpaceLeft)
                    throw;
                ++refused;
            } catch (const vfs::Exception& error) {
                if (error.getErrorCode() != ErrorCode::NoSpaceLeft && error.getErrorCode() != ErrorCode::ResourceNotFound)
                    throw;
                ++refused;
            }
        }
    });

    EXPECT_GT(refused.load(), 0) << "the quota never came into play";
    std::uint64_t held = 0;
    for (const vfs::FileEntry& entry : root.listFileEntries(u""))
        held += entry.getAttributes().getSize();
    EXPECT_LE(held, quota);
    EXPECT_EQ(used(), held);
}

} // namespace
