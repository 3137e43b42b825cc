// Open modes, IODevice and its trace, buffered and transactional devices, against real providers
// with faults injected in the middle of their streams.

#include <Prelude.hpp>

namespace {

using provider::ByteStreamAccess;
using provider::ByteStreamCreation;
using provider::ByteStreamOpenOptions;
using provider::StreamClosePolicy;
using std::ios_base;

const ByteStreamOpenOptions readWrite{ByteStreamAccess::ReadWrite, ByteStreamCreation::CreateIfMissing, 1, 1};

void write(const File& file, const std::string& content)
{
    vfs::IODevice device(file, {ByteStreamAccess::Write, ByteStreamCreation::CreateIfMissing, 0, 1});
    device.write(content.data(), static_cast<std::streamsize>(content.size()));
    device.close();
}

template <class T>
bool isA(const vfs::IOException& error)
{
    return dynamic_cast<const T*>(&error) != nullptr;
}

class DeviceTest : public testing::TestWithParam<std::string> {
protected:
    DecoratedStorage storage;
    WorkingFolder folder{GetParam(), storage.ref};
    const File file = folder.file(u"file.bin");
    provider::decorators::FaultInjectingProvider& faults() const
    {
        return *storage.layers(GetParam() == "file" ? u"file" : u"mem").faults;
    }
};

TEST_P(DeviceTest, AFaultInTheMiddleOfAStreamArrivesAsTheOperationsIOException)
{
    write(file, std::string(1000, 'x'));
    struct Case {
        ProviderOperation operation;
        bool (*expected)(const vfs::IOException&);
        std::function<void(const vfs::IODevice&)> act;
        std::uint64_t succeeding; // calls that go through before the fault
    };
    char buffer[100];
    const Case cases[] = {
        {ProviderOperation::StreamRead, isA<vfs::IOReadException>, [&](const vfs::IODevice& d) { d.read(buffer, 100); }, 2},
        {ProviderOperation::StreamWrite, isA<vfs::IOWriteException>, [&](const vfs::IODevice& d) { d.write(buffer, 100); }, 2},
        {ProviderOperation::StreamSeek, isA<vfs::IOSeekException>, [&](const vfs::IODevice& d) { d.tell(); }, 2},
        // A copy closes the stream that all copies share.
        {ProviderOperation::StreamClose, isA<vfs::IOCloseException>, [&](const vfs::IODevice& d) { vfs::IODevice(d).close(); }, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(toString(c.operation));
        vfs::IODevice device(file, readWrite);
        const auto id = faults().addFault({.operation = c.operation, .code = provider::ErrorCode::ResourceInUse,
                                           .trigger = provider::decorators::FaultInjectingProvider::Trigger::AfterN,
                                           .calls = c.succeeding});
        for (std::uint64_t i = 0; i < c.succeeding; ++i)
            c.act(device);
        vfs_test::inspectThrown<vfs::IOException>([&] { c.act(device); }, [&](const vfs::IOException& error) {
            EXPECT_TRUE(c.expected(error)) << typeid(error).name();
            EXPECT_EQ(error.getErrorCode(), ErrorCode::ResourceInUse);
            EXPECT_EQ(error.getExceptionContextsString(), u"fault-injection:" + fl::i18n::utf8_to_ustring(toString(c.operation)));
            EXPECT_THAT(error.what(), testing::StartsWith("injected fault: "));
        });
        faults().removeFault(id);
        device.close();
    }
    // Reads, seeks and closes that failed changed nothing; the two writes that went through did.
    EXPECT_EQ(vfs_test::readWhole(file).size(), 1000u);
}

TEST_P(DeviceTest, MisuseFailsClearly)
{
    write(file, "abc");
    vfs::IODevice reader(file);
    vfs_test::inspectThrown<vfs::IOWriteException>([&] { reader.write("x", 1); }, [](const vfs::IOWriteException& error) {
        EXPECT_EQ(error.getErrorCode(), ErrorCode::PermissionDenied);
    });
    vfs_test::inspectThrown<vfs::IOSeekException>([&] { reader.seek(-1, ios_base::beg); }, [](const vfs::IOSeekException& error) {
        EXPECT_EQ(error.getErrorCode(), ErrorCode::InvalidLocation);
    });
    vfs::IODevice moved(std::move(reader));
    EXPECT_FALSE(reader.is_open());
    char c;
    EXPECT_THROW(reader.read(&c, 1), std::logic_error);
    moved.close();
    EXPECT_EQ(vfs_test::whatOf<std::logic_error>([&] { moved.close(); }), "Cannot operate on a closed IODevice.");

    // A buffered device over a closed one reports an I/O exception, not the logic error.
    vfs::IODevice closed(file);
    vfs::BufferedIODevice buffered(closed);
    closed.close();
    vfs_test::inspectThrown<vfs::IOReadException>([&] { buffered.read(&c, 1); }, [](const vfs::IOReadException& error) {
        EXPECT_EQ(error.getErrorCode(), ErrorCode::IOError);
    });

    vfs::BufferedIODevice fresh(file);
    char all[8];
    EXPECT_EQ(fresh.read(all, 8), 3);
    EXPECT_EQ(fresh.read(all, 8), -1);
    EXPECT_EQ(fresh.tell(), std::streampos(3));

    vfs::TransactionalIODevice transaction(file, ByteStreamAccess::Write);
    transaction.close(StreamClosePolicy::Discard);
    EXPECT_EQ(vfs_test::whatOf<std::logic_error>([&] { transaction.close(StreamClosePolicy::Commit); }),
              "Cannot operate on a closed TransactionalIODevice.");
    EXPECT_EQ(vfs_test::readWhole(file), "abc");
    EXPECT_THROW(vfs::detail::toByteStreamAccess(std::ios_base::in), IInternalException);
}

TEST_P(DeviceTest, TransactionalDeviceReplacesTheContentWholeOnCommitOnly)
{
    write(file, "old");
    {
        vfs::TransactionalIODevice dropped(file, ByteStreamAccess::Write);
        dropped.write("new", 3);
    }
    EXPECT_EQ(vfs_test::readWhole(file), "old");
    vfs::TransactionalIODevice device(file, ByteStreamAccess::ReadWrite);
    device.write("new content", 11);
    EXPECT_EQ(device.tell(), std::streampos(11));
    EXPECT_EQ(vfs_test::readWhole(file), "old");
    device.close(StreamClosePolicy::Commit);
    EXPECT_EQ(vfs_test::readWhole(file), "new content");
}

INSTANTIATE_TEST_SUITE_P(Providers, DeviceTest, testing::Values("file", "mem"));

TEST(IODeviceTraceTest, TellTracesItsSeekAndFailuresLeaveByThrow)
{
    DecoratedStorage storage;
    const WorkingFolder folder("mem", storage.ref);
    const File file = folder.file(u"traced.txt");
    write(file, "abc");
    vfs::IODevice device(file, readWrite);
    vfs_test::RecordingListener listener(vfs::detail::logger(), foundation::log::category_all);
    EXPECT_EQ(device.tell(), std::streampos(0));
    // tell() is a seek by nothing: its trace holds the seek's, one level in.
    const auto records = listener.take();
    ASSERT_EQ(records.size(), 7u);
    EXPECT_THAT(records[0].text, testing::HasSubstr("IODevice::tell"));
    EXPECT_THAT(records[1].text, testing::HasSubstr("IODevice::seek"));
    EXPECT_EQ(records[1].indent, records[0].indent + 1);
    EXPECT_EQ(records[5], (vfs_test::LogRecord{foundation::log::category_results, records[0].indent + 1, "Told: 0"}));

    storage.layers(u"mem").faults->addFault({.operation = ProviderOperation::StreamWrite});
    EXPECT_THROW(device.write("x", 1), vfs::IOWriteException);
    const auto failed = listener.take();
    ASSERT_EQ(failed.size(), 3u) << "entry, arguments, exit: no result";
    EXPECT_EQ(failed[1].text, " n=1");
    EXPECT_THAT(failed[2].text, testing::EndsWith(" [throw]"));
}

TEST(TransactionalDeviceTest, AFullOrReadOnlyMemoryVolumeKeepsThePreviousContent)
{
    DecoratedStorage storage;
    const WorkingFolder folder("mem", storage.ref);
    const File file = folder.file(u"kept.txt");
    write(file, std::string(100, 'o'));
    boost::property_tree::ptree settings;
    settings.put("quotaBytes", "150");
    storage.layers(u"mem").faults->configure(settings);

    vfs::TransactionalIODevice device(file, ByteStreamAccess::Write);
    device.write(std::string(100, 'n').data(), 100);
    vfs_test::inspectThrown<vfs::IOWriteException>([&] { device.write(std::string(100, 'n').data(), 100); },
                                                   [](const vfs::IOWriteException& error) {
                                                       EXPECT_EQ(error.getErrorCode(), ErrorCode::NoSpaceLeft);
                                                   });
    settings.put("quotaBytes", "1000");
    settings.put("readOnly", "true");
    storage.layers(u"mem").faults->configure(settings);
    vfs_test::inspectThrown<vfs::IOCloseException>([&] { device.close(StreamClosePolicy::Commit); },
                                                   [](const vfs::IOCloseException& error) {
                                                       EXPECT_EQ(error.getErrorCode(), ErrorCode::ReadOnlyProvider);
                                                   });
    EXPECT_TRUE(device.is_open()) << "a failed commit leaves the device open";
    device.close(StreamClosePolicy::Discard);
    EXPECT_EQ(vfs_test::readWhole(file), std::string(100, 'o'));
}

} // namespace
