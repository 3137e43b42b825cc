// Trees and loads built to make the library misbehave: links leading back round, names that are
// not UTF-8, and many writers racing against a memory volume's quota.

#include <Prelude.hpp>

namespace {

// Counts what it meets; a folder that fails (a link leading back round) is noted and passed over.
class CountingVisitor : public vfs::FolderVisitor {
public:
    vfs::FolderVisitResult visit(const File&) override
    {
        ++files;
        return vfs::FolderVisitResult::Continue;
    }
    vfs::FolderVisitResult visitFolderFailed(const Folder&, const vfs::Exception& error) override
    {
        if (error.getErrorCode() == ErrorCode::InvalidLocation &&
            error.getExceptionContextsString().find(u"circular_symlink") != ustring::npos)
            ++circular;
        return vfs::FolderVisitResult::Continue;
    }
    std::atomic<int> files{0};
    std::atomic<int> circular{0};
};

// Links to folders that lead back round (to an ancestor, or through a second link) end every walk:
// each such link is reported once per way of reaching it, and its target is walked once.
TEST(HostileTreeTest, LinkLoopsEndEveryWalk)
{
    const vfs_test::TempDir tree;
    tree.writeFile("walked/a/f");
    tree.writeFile("walked/b/g");
    std::filesystem::create_directory_symlink(tree.path(), tree / "walked/a/up");
    std::filesystem::create_directory_symlink(tree / "walked/b", tree / "walked/a/tob");
    std::filesystem::create_directory_symlink(tree / "walked/a", tree / "walked/b/toa");
    auto [system, ref] = vfs_test::makeSystem<vfs::DefaultStorageSystem>();
    const Folder walked(vfs::toAbsoluteIRI(u"", tree / "walked"), ref);
    for (const bool parallel : {false, true}) {
        SCOPED_TRACE(parallel ? "parallel" : "sequential");
        CountingVisitor visitor;
        EXPECT_EQ(parallel ? vfs::walkFolderParallel(walked, visitor) : vfs::walkFolder(walked, visitor),
                  vfs::FolderVisitResult::Continue);
        // a/f, b/g, and each through the other's link once: a/tob/g, b/toa/f.
        EXPECT_EQ(visitor.files, 4);
        // a/up and b/toa/up lead to an ancestor; a/tob/toa and b/toa/tob back through the other link.
        EXPECT_EQ(visitor.circular, 4);
    }
    // A visitor that does not absorb the failure ends the walk with it.
    vfs::FolderVisitor plain;
    EXPECT_THROW(vfs::walkFolder(walked, plain), vfs::Exception);
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

namespace {

// Every byte a name may hold (all but '/' and NUL) once, bytes that are no UTF-8, control
// characters, and the longest name ext4 takes.
std::set<std::string> hostileNames()
{
    std::set<std::string> names;
    for (int byte = 1; byte < 256; ++byte)
        if (byte != '/')
            names.insert(std::string("n") + static_cast<char>(byte));
    for (const char* name : {"line\nbreak", "tab\there", "\xC3\x28", "\xE2\x82", "\xFF\xFE", "\xED\xA0\x80",
                             "\xC0\xAF", "caf\xC3\xA9", "mixed\xC3\xA9\xFF", "%FF", "a%2Fb", "!", "#?"})
        names.insert(name);
    names.insert(std::string(255, 'L'));
    return names;
}

std::set<std::string> namesOnDisk(const std::filesystem::path& folder)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.insert(entry.path().filename().native());
    return names;
}

} // namespace

// A disk allows any bytes but '/' and NUL in a name: every such name is listed, walked, copied,
// moved and removed, and keeps its bytes (and its content) throughout.
TEST(HostileTreeTest, EveryNameOnDiskIsReachable)
{
    const vfs_test::TempDir tree;
    const std::set<std::string> names = hostileNames();
    for (const auto& name : names)
        tree.writeFile(std::filesystem::path("src") / name, name);
    auto [system, ref] = vfs_test::makeSystem<vfs::DefaultStorageSystem>();
    const Folder source(vfs::toAbsoluteIRI(u"", tree / "src"), ref);

    std::set<std::string> listed;
    for (const File& file : source.listFiles()) {
        listed.insert(fl::i18n::ustring_to_native(file.getName()));
        const AbsoluteIRI location = file.getLocation();
        EXPECT_EQ(AbsoluteIRI(location.toString()), location) << location.toUtf8();
        EXPECT_EQ(vfs::fromAbsoluteIRI(location).filename().native(), fl::i18n::ustring_to_native(file.getName()));
    }
    EXPECT_EQ(listed, names);

    CountingVisitor visitor;
    vfs::walkFolder(source, visitor);
    EXPECT_EQ(visitor.files.load(), static_cast<int>(names.size()));

    const Folder copy(vfs::toAbsoluteIRI(u"", tree / "copy"), ref);
    source.copyFolder(copy, provider::ReplacementPolicy::FailIfExists);
    EXPECT_EQ(namesOnDisk(tree / "copy"), names);

    const Folder moved(vfs::toAbsoluteIRI(u"", tree / "moved"), ref);
    moved.createFolder();
    std::vector<File> copied;
    for (const File& file : copy.listFiles())
        copied.push_back(file);
    ASSERT_EQ(copied.size(), names.size());
    for (const File& file : copied)
        file.moveFile(File(moved, file.getName()), provider::ReplacementPolicy::FailIfExists);
    EXPECT_EQ(namesOnDisk(tree / "moved"), names);
    EXPECT_TRUE(namesOnDisk(tree / "copy").empty());
    for (const auto& name : names) {
        std::ifstream in(tree / "moved" / name, std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), name);
    }

    for (const File& file : copied)
        File(moved, file.getName()).removeFile();
    EXPECT_TRUE(namesOnDisk(tree / "moved").empty());
    source.removeFolder(vfs::FolderRemovalPolicy::Recursive);
    EXPECT_FALSE(std::filesystem::exists(tree / "src"));
}
