// Text mode over the memory provider: whatever the bytes and however writes and reads are split,
// writing in text mode and reading back in text mode gives the bytes back, and what is stored is
// the bytes with a CR put before every LF. Checked through the file streams (whose large transfers
// bypass their buffer) and through the adapter on its own (whose reads end where the fuzzer says,
// so CR LF pairs fall across reads).

#include "FuzzInput.hpp"

#include <foundation/storage/vfs/DefaultStorageSystem.hpp>
#include <foundation/storage/vfs/FileStream.hpp>
#include <foundation/storage/vfs/IODevice.hpp>
#include <foundation/storage/vfs/detail/TextModeAdapter.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;

const vfs::File& scratchFile()
{
    static const auto system = std::make_shared<vfs::DefaultStorageSystem>();
    static const vfs::File file(vfs::AbsoluteIRI(u"mem://fuzz/text.txt"),
                                vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(system)));
    return file;
}

std::string withCrBeforeEachLf(const std::string& text)
{
    std::string stored;
    for (const char c : text) {
        if (c == '\n')
            stored += '\r';
        stored += c;
    }
    return stored;
}

std::string storedBytes(const vfs::File& file)
{
    vfs::IODevice device(file);
    std::string bytes;
    char chunk[4096];
    for (std::streamsize got; (got = device.read(chunk, sizeof chunk)) > 0;)
        bytes.append(chunk, static_cast<std::size_t>(got));
    device.close();
    return bytes;
}

// Chunk lengths from the fuzzer's bytes, used in turn (and again from the start once all are used).
// Mostly small, with a few that reach past the streams' 131072-byte buffer.
class Splits {
public:
    // `scale` multiplies the small lengths, so that long texts go in pieces of a useful size.
    Splits(const std::uint8_t* data, std::size_t size, std::size_t scale) : m_lengths(size == 0 ? 1 : size)
    {
        for (std::size_t i = 0; i < size; ++i)
            m_lengths[i] = data[i] >= 250 ? 131072 + (data[i] - 250) * 7 : (1 + data[i] % 64) * scale - (scale > 1 ? data[i] % 3 : 0);
        if (size == 0)
            m_lengths[0] = 7;
    }
    std::size_t next() { return m_lengths[m_next++ % m_lengths.size()]; }

private:
    std::vector<std::size_t> m_lengths;
    std::size_t m_next = 0;
};

template <class Write>
void writeInPieces(const std::string& text, Splits& splits, Write&& write)
{
    for (std::size_t done = 0; done < text.size();) {
        const std::size_t piece = std::min(splits.next(), text.size() - done);
        write(text.data() + done, static_cast<std::streamsize>(piece));
        done += piece;
    }
}

template <class Read>
std::string readInPieces(Splits& splits, Read&& read)
{
    std::string text;
    std::vector<char> chunk;
    for (;;) {
        chunk.resize(splits.next());
        const std::streamsize got = read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        if (got <= 0)
            return text;
        text.append(chunk.data(), static_cast<std::size_t>(got));
    }
}

void throughStreams(const std::string& text, Splits& writes, Splits& reads)
{
    const vfs::File& file = scratchFile();
    {
        vfs::ofstream out(file, std::ios::trunc);
        writeInPieces(text, writes, [&](const char* s, std::streamsize n) { out.write(s, n); });
        out.close();
        if (!out)
            vfs_fuzz::violated("a text-mode ofstream writes without failing");
    }
    if (storedBytes(file) != withCrBeforeEachLf(text))
        vfs_fuzz::violated("the ofstream stores a CR before every LF and nothing else changes");
    vfs::ifstream in(file, 0);
    const std::string back = readInPieces(reads, [&](char* s, std::streamsize n) {
        in.read(s, n);
        return in.gcount();
    });
    if (back != text)
        vfs_fuzz::violated("the ifstream reads back what the ofstream wrote");
}

void throughAdapter(const std::string& text, Splits& writes, Splits& reads)
{
    using Adapter = vfs::detail::TextModeAdapter<vfs::IODevice>;
    const vfs::File& file = scratchFile();
    {
        Adapter adapter(vfs::IODevice(
            file, {provider::ByteStreamAccess::Write, provider::ByteStreamCreation::CreateIfMissing, 0, 1}));
        writeInPieces(text, writes, [&](const char* s, std::streamsize n) {
            if (adapter.write(s, n) != n)
                vfs_fuzz::violated("the adapter's write counts the input bytes");
        });
        adapter.close();
    }
    if (storedBytes(file) != withCrBeforeEachLf(text))
        vfs_fuzz::violated("the adapter stores a CR before every LF and nothing else changes");
    Adapter adapter{vfs::IODevice(file)};
    const std::string back = readInPieces(reads, [&](char* s, std::streamsize n) { return adapter.read(s, n); });
    adapter.close();
    if (back != text)
        vfs_fuzz::violated("the adapter reads back what it wrote");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Byte 0: how many of the following bytes give write lengths, byte 1 how many give read
    // lengths; the rest is the text. CRs and LFs are made frequent by mapping two byte ranges onto them.
    if (size < 2)
        return 0;
    const std::size_t rest = size - 2;
    const std::size_t writeCount = std::min<std::size_t>(data[0] % 16, rest);
    const std::size_t readCount = std::min<std::size_t>(data[1] % 16, rest - writeCount);
    const std::uint8_t* const lengths = data + 2;
    std::string text;
    for (std::size_t i = 2 + writeCount + readCount; i < size; ++i) {
        const std::uint8_t byte = data[i];
        text += byte >= 0xF0 && byte < 0xF8 ? '\r' : byte >= 0xF8 ? '\n' : static_cast<char>(byte);
    }
    // A long run of text repeats the input, so that chunks past the streams' buffer size are met.
    if ((data[0] & data[1] & 0x80) && !text.empty())
        while (text.size() < 140000)
            text += text;

    const std::size_t scale = text.size() >= 140000 ? 1024 : 1;
    Splits streamWrites(lengths, writeCount, scale), streamReads(lengths + writeCount, readCount, scale);
    throughStreams(text, streamWrites, streamReads);
    Splits adapterWrites(lengths, writeCount, scale), adapterReads(lengths + writeCount, readCount, scale);
    throughAdapter(text, adapterWrites, adapterReads);
    return 0;
}
