// File streams in binary and text mode, the FILE-style adapter and C FILE*s over storage files.

#include <Prelude.hpp>

#include <foundation/storage/vfs/detail/TextModeAdapter.hpp>

namespace {

using std::ios_base;

constexpr int binary = ios_base::binary;

class StreamTest : public testing::TestWithParam<std::string> {
protected:
    std::string bytesOf(const File& file) const
    {
        vfs::ifstream in(file, binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    void store(const File& file, const std::string& bytes) const
    {
        vfs::ofstream out(file, binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        out.close();
        ASSERT_TRUE(out.good());
    }

    DecoratedStorage storage;
    WorkingFolder folder{GetParam(), storage.ref};
    const File file = folder.file(u"text.txt");
};

TEST_P(StreamTest, TextModeTranslatesLineEndsAcrossBufferBoundaries)
{
    // The CR of a pair ends the first provider read of the buffer, its LF starts the next.
    const std::streamsize boundary = 131072;
    std::string text(boundary - 1, 'a');
    text += "\nb\n\nc";
    vfs::ofstream out(file, 0);
    out << text;
    out.close();

    std::string expected(boundary - 1, 'a');
    expected += "\r\nb\r\n\r\nc";
    EXPECT_EQ(bytesOf(file), expected);

    vfs::ifstream in(file, 0);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), text);
    // In large reads, which go around the buffer, too.
    vfs::ifstream large(file, 0);
    std::string read(text.size() + 10, '\0');
    large.read(read.data(), static_cast<std::streamsize>(read.size()));
    EXPECT_EQ(read.substr(0, static_cast<std::size_t>(large.gcount())), text);

    struct Case {
        std::string stored;
        std::string read;
    };
    const Case cases[] = {{"a\r\nb", "a\nb"}, {"a\r\r\nb", "a\r\nb"}, {"a\r", "a\r"}, {"\r\n\r", "\n\r"}};
    for (const Case& c : cases) {
        store(file, c.stored);
        vfs::ifstream each(file, 0);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(each), {}), c.read);
    }
}

TEST_P(StreamTest, ModesOpenAsTheStandardStreamsDo)
{
    store(file, "0123456789");
    vfs::fstream atEnd(file, ios_base::in | ios_base::out | ios_base::ate | binary);
    EXPECT_EQ(atEnd.tellg(), std::streampos(10));
    atEnd << "X";
    // A second open leaves the first file open and fails the stream.
    atEnd.open(folder.file(u"other.txt"), ios_base::out);
    EXPECT_TRUE(atEnd.is_open() && atEnd.fail());
    atEnd.close();
    atEnd.close();
    EXPECT_TRUE(atEnd.fail());
    EXPECT_EQ(bytesOf(file), "0123456789X");

    // A read-only open refuses writes through the stream's state, not an exception.
    vfs::fstream readOnly(file, ios_base::in | binary);
    readOnly << "Z" << std::flush;
    EXPECT_TRUE(readOnly.bad());
    readOnly.clear();
    readOnly.close();
    EXPECT_EQ(bytesOf(file), "0123456789X");
}

TEST_P(StreamTest, ACloseFailureArrivesAsIOCloseException)
{
    vfs::ofstream out(file, binary);
    out << "data";
    storage.layers(GetParam() == "file" ? u"file" : u"mem")
        .faults->addFault({.operation = provider::decorators::ProviderOperation::StreamClose,
                           .code = provider::ErrorCode::IOError});
    EXPECT_THROW(out.close(), vfs::IOCloseException);
    EXPECT_FALSE(out.is_open());
}

TEST_P(StreamTest, PosixFILEReportsFailuresTheCWay)
{
    EXPECT_THROW(vfs::openPosixFile(file, "rw"), std::logic_error);
    std::unique_ptr<vfs::PosixFILE> writer(vfs::openPosixFile(file, "bw"));
    EXPECT_EQ(writer->fwrite("hello", 1, 5), 5u);
    EXPECT_EQ(writer->fclose(), 0);

    std::unique_ptr<vfs::PosixFILE> reader(vfs::openPosixFile(file, "rb"));
    EXPECT_EQ(reader->fwrite("x", 1, 1), 0u);
    EXPECT_EQ(reader->ferror(), EPERM);
    char buffer[8] = {};
    EXPECT_EQ(reader->fread(buffer, 2, 4), 2u) << "whole items only";
    EXPECT_NE(reader->feof(), 0);
    EXPECT_EQ(reader->fseek(0, 3), ESPIPE);
    EXPECT_EQ(reader->fseek(-1, 0), EIO) << "before the start";
    EXPECT_EQ(reader->fseek(1, 0), 0);
    EXPECT_EQ(reader->feof(), 0);
    EXPECT_EQ(reader->ftell(), 1);
    EXPECT_EQ(reader->fread(buffer, 1, 8), 4u);
    EXPECT_THROW(reader->releaseRawFile(), std::logic_error);

    boost::property_tree::ptree settings;
    settings.put("readOnly", "true");
    if (GetParam() == "mem") {
        std::unique_ptr<vfs::PosixFILE> appender(vfs::openPosixFile(file, "a"));
        storage.layers(u"mem").faults->configure(settings);
        // More than the buffer holds reaches the provider at once.
        const std::string large(200000, '!');
        EXPECT_LT(appender->fwrite(large.data(), 1, large.size()), large.size());
        EXPECT_EQ(appender->ferror(), EPERM);
    }
}

TEST_P(StreamTest, CFileOverAStorageFile)
{
    FILE* out = vfs::openCFile(file, "w");
    ASSERT_NE(out, nullptr);
    std::fprintf(out, "%d lines\n", 2);
    std::fputs("second\n", out);
    EXPECT_EQ(std::fflush(out), 0);
    EXPECT_EQ(file.getAttributes().getSize(), 15u); // written through, before fclose
    EXPECT_EQ(std::fclose(out), 0);

    FILE* in = vfs::openCFile(file, "r");
    char line[32];
    ASSERT_NE(std::fgets(line, sizeof line, in), nullptr);
    EXPECT_STREQ(line, "2 lines\n");
    EXPECT_EQ(std::fseek(in, -7, SEEK_END), 0);
    ASSERT_NE(std::fgets(line, sizeof line, in), nullptr);
    EXPECT_STREQ(line, "second\n");
    EXPECT_EQ(std::fgetc(in), EOF);
    EXPECT_NE(std::feof(in), 0);
    EXPECT_EQ(std::fclose(in), 0);

    // A "b" anywhere changes nothing, also where the C library would not look for one.
    FILE* update = vfs::openCFile(file, "rbb+");
    ASSERT_NE(update, nullptr);
    EXPECT_EQ(std::fputc('3', update), '3');
    EXPECT_EQ(std::fclose(update), 0);
    FILE* rewrite = vfs::openCFile(file, "bw");
    ASSERT_NE(rewrite, nullptr);
    EXPECT_GE(std::fputs("new", rewrite), 0);
    EXPECT_EQ(std::fclose(rewrite), 0);
    in = vfs::openCFile(file, "r");
    ASSERT_NE(std::fgets(line, sizeof line, in), nullptr);
    EXPECT_STREQ(line, "new");
    EXPECT_EQ(std::fclose(in), 0);

    if (GetParam() == "mem") {
        boost::property_tree::ptree settings;
        settings.put("quotaBytes", "20");
        storage.layers(u"mem").faults->configure(settings);
        FILE* full = vfs::openCFile(folder.file(u"full.txt"), "w");
        std::fputs(std::string(100, 'x').c_str(), full);
        errno = 0;
        EXPECT_EQ(std::fflush(full), EOF);
        EXPECT_EQ(errno, ENOSPC);
        std::fclose(full);
    }
}

INSTANTIATE_TEST_SUITE_P(Providers, StreamTest, testing::Values("file", "mem"));

TEST(RawPosixFILETest, ForwardsToTheCLibraryAndClosesOnlyWhatItOwns)
{
    EXPECT_EQ(vfs::adaptPosixFile(nullptr, true), nullptr);
    FILE* raw = std::tmpfile();
    std::unique_ptr<vfs::PosixFILE> borrowed(vfs::adaptPosixFile(raw, false));
    EXPECT_EQ(borrowed->fwrite("abcdef", 1, 6), 6u);
    EXPECT_EQ(borrowed->fseek(-2, 1), 0);
    EXPECT_EQ(borrowed->ftell(), 4);
    EXPECT_EQ(borrowed->fseek(-1, 2), 0);
    char c = 0;
    EXPECT_EQ(borrowed->fread(&c, 1, 1), 1u);
    EXPECT_EQ(c, 'f');
    EXPECT_EQ(borrowed->fclose(), 0);
    EXPECT_EQ(std::fputc('x', raw), 'x') << "still open";
    EXPECT_EQ(borrowed->releaseRawFile(), raw);
    EXPECT_EQ(borrowed->rawFile(), nullptr);
    std::fclose(raw);
}

} // namespace
